#include "support/support.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <unistd.h>

#include "platform/win32.h"
#include "tolimage_posix.h"

namespace test {

namespace {
Recorder *activeRecorder = nullptr;

void RecordReport(const char *title, const char *text, int32_t withSystemText) {
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

std::string TempDir() {
    static std::string dir;
    if (dir.empty()) {
        char pattern[] = "/tmp/tolimage-test-XXXXXX";
        const char *made = mkdtemp(pattern);
        dir = made ? made : "/tmp";
    }
    return dir;
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
