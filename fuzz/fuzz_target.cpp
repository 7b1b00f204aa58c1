// libFuzzer target over one harness, chosen when it is built:
// -DTL_FUZZ_HARNESS=Bmp, Pcx, Ras, Tiff, Record, Bitmap or Image.
#include "fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    RunHarness(Harness::TL_FUZZ_HARNESS, data, size);
    return 0;
}
