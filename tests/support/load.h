// load.h - a file through TL_IMAGE_E, and the reports a Recorder heard, for
// the tests of the readers and of the detection.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "support/support.h"

namespace test {

// TL_IMAGE_E on a copy of `path` in a buffer of at least 260 bytes.
inline TL_HANDLE Load(const std::string &path, int32_t number = 0) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(std::max<size_t>(name.size() + 1, 260), '\0');
    return TL_IMAGE_E(name.data(), number);
}

// The reports heard so far, each as "title: text (withSystemText)" with
// `path` in the text written "@", as given or in the full form that the
// library reports; the recorder forgets them.
inline std::vector<std::string> Heard(Recorder &recorder, const std::string &path = "") {
    std::vector<std::string> out;
    const std::string full = path.empty() ? path : FullPath(path);
    for (Report &r : recorder.reports) {
        for (const std::string *form : {&path, &full}) {
            if (size_t at = form->empty() ? std::string::npos : r.text.find(*form); at != std::string::npos)
                r.text.replace(at, form->size(), "@");
        }
        out.push_back(r.title + ": " + r.text + " (" + std::to_string(r.withSystemText) + ")");
    }
    recorder.reports.clear();
    return out;
}

}  // namespace test
