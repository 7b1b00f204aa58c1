// support.cpp - what the tests share.  Before any test runs, a dialog that
// cancels at once stands in for the terminal, so that a test reaching a
// missing file cannot wait for input; tests of the dialog put their own in.
#include "support/support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <filesystem>
#include <random>

#include "platform/win32.h"
#include "tolimage_posix.h"

namespace test {

namespace {
Recorder *activeRecorder = nullptr;

int32_t TL_CALL CancelAtOnce(TL_FILE_REQUEST *) { return 0; }
const TL_FILE_DIALOG installedBefore = TlSetFileDialog(CancelAtOnce);

void TL_CALL RecordReport(const char *title, const char *text, int32_t withSystemText) {
    if (activeRecorder) activeRecorder->reports.push_back({title ? title : "", text ? text : "", withSystemText});
}
}  // namespace

std::string Fixture(const std::string &relative) { return std::string(TL_FIXTURES) + "/" + relative; }
std::string Sample(const std::string &relative) { return std::string(TL_SAMPLES) + "/" + relative; }

std::vector<uint8_t> ReadFileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ReadText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteText(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::string FullPath(const std::string &path) {
    char full[260];
    return _fullpath(full, path.c_str(), sizeof full) ? std::string(full) : path;
}

std::string TempDir() {
    // A fresh folder under the system's temporary folder, removed with
    // what the tests left in it when the test program ends.
    struct Scratch {
        std::string path;
        Scratch() {
            std::error_code error;
            const auto base = std::filesystem::temp_directory_path(error);
            std::random_device random;
            for (int attempt = 0; attempt < 100 && path.empty(); ++attempt) {
                char name[40];
                std::snprintf(name, sizeof name, "tolimage-test-%08x%08x", random(), random());
                if (std::filesystem::create_directory(base / name, error)) path = (base / name).string();
            }
            if (path.empty()) path = base.string();
        }
        ~Scratch() {
            std::error_code error;
            if (std::filesystem::path(path).filename().string().rfind("tolimage-test-", 0) == 0)
                std::filesystem::remove_all(path, error);
        }
    };
    static Scratch scratch;
    return scratch.path;
}

std::string WriteTemp(const std::string &name, const std::vector<uint8_t> &bytes) {
    std::string path = TempDir() + "/" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
    return path;
}

Recorder::Recorder(int32_t cont, int32_t box, int32_t abort) {
    activeRecorder = this;
    ERROR_FLAGS_E(cont, box, abort, RecordReport);
    TL_CLEARERROR_E();
}

Recorder::~Recorder() {
    activeRecorder = nullptr;
    ERROR_FLAGS_E(1, 1, 1, nullptr);
    TL_CLEARERROR_E();
}

void QuietDefaults() {
    ERROR_FLAGS_E(1, 0, 1, nullptr);
    TL_CLEARERROR_E();
}

LeakGuard::LeakGuard() : blocks(platform::LiveBlocks()), files(platform::OpenFiles()) {}
bool LeakGuard::Same() const { return blocks == platform::LiveBlocks() && files == platform::OpenFiles(); }

TL_HANDLE Load(const std::string &path, int32_t number) {
    std::vector<char> name(path.begin(), path.end());
    name.resize(std::max<size_t>(name.size() + 1, 260), '\0');
    return TL_IMAGE_E(name.data(), number);
}

std::vector<std::string> Heard(Recorder &recorder, const std::string &path) {
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

std::vector<uint8_t> BlockBytes(TL_HANDLE block) {
    std::vector<uint8_t> out;
    if (!block) return out;
    auto *p = static_cast<uint8_t *>(GlobalLock(block));
    out.assign(p, p + GlobalSize(block));
    GlobalUnlock(block);
    return out;
}

void FreeBlock(TL_HANDLE block, bool locked) {
    if (!block) return;
    if (locked) GlobalUnlock(block);
    GlobalFree(block);
}

}  // namespace test
