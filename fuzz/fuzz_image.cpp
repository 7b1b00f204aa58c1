// libFuzzer target over the image entry.  Seeds: fuzz/seeds/<format>/.
#include "fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    RunImageHarness(data, size);
    return 0;
}
