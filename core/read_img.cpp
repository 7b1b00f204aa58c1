// read_img.cpp - format detection from a file's first bytes.
#include <cstring>

#include "core/bytes.h"
#include "core/image.h"
#include "services/errors.h"
#include "services/files.h"

int32_t LastImageType = TypeUnknown;

namespace {

constexpr uint32_t RasHeaderBytes = 2444;
constexpr int RasElements = 16;
constexpr size_t RasElementName = 2124;  // 4 bytes per element
constexpr size_t RasOrder = 2316;        // Order0, Order1: 2 signed bytes per element
constexpr size_t RasElementType = 2348;  // 2 letters per element
constexpr size_t RasElementBits = 2380;  // i32 per element

bool IsLower(uint8_t c) { return c >= 'a' && c <= 'z'; }
int Magnitude(int8_t v) { return v < 0 ? -v : v; }

// The RAS test over the 2444 header bytes: TypeRAS when an element
// describes a picture of 8-bit, 1-bit or 4-bit pixels, else TypeUnknown.
int32_t RasTypeOf(const uint8_t *header) {
    for (int i = 0; i < RasElements; ++i) {
        if (!IsLower(header[RasElementName + 4 * i])) return TypeUnknown;
        int8_t order0 = int8_t(header[RasOrder + 2 * i]);
        int8_t order1 = int8_t(header[RasOrder + 2 * i + 1]);
        if (Magnitude(order0) > 2 || Magnitude(order1) > 2 || Magnitude(order0) * Magnitude(order1) > 2)
            return TypeUnknown;
        const uint8_t *type = header + RasElementType + 2 * i;
        if (!IsLower(type[0]) || !IsLower(type[1])) return TypeUnknown;
        int32_t bits = LoadI32(header + RasElementBits + 4 * i);
        if (type[0] == 'u' && type[1] == 'n' && bits == 8) return TypeRAS;
        if (type[0] == 'b' && type[1] == 'i' && (bits == 1 || bits == 4)) return TypeRAS;
    }
    return TypeUnknown;
}

int32_t TypeOfMagic(uint16_t magic) {
    switch (magic) {
        case 0x000A:
        case 0x020A:
        case 0x030A:
        case 0x050A:
            return TypePCX;
        case 0x4D42:
            return TypeBMP;
        case 0x4949:
        case 0x4D4D:
            return TypeTIFF;
        default:
            return TypeUnknown;
    }
}

}  // namespace

TL_HANDLE ReadIMG(char *name, int32_t imageNumber) {
    ErrorClear();
    ForgetReadWindows();  // a file kept open since the last call is read anew
    int32_t type = LastImageType;
    if (name != nullptr && name[0] != '\0') {
        ManagedFile file = TL_OPEN(name, "rb");
        if (ErrorStatus()) return nullptr;
        uint8_t magic[2];
        if (TL_READ(magic, 2, file) < 2) {
            ReportError("ReadIMG", name, 1);
            TL_CLOSE(file);
            return nullptr;
        }
        type = TypeOfMagic(LoadU16(magic));
        if (LoadU16(magic) == 0x6962) {  // "bi"
            static uint8_t header[RasHeaderBytes];
            TL_REWIND(file);
            if (TL_READ(header, RasHeaderBytes, file) < RasHeaderBytes) {
                ReportError("ReadIMG", name, 1);
                TL_CLOSE(file);
                return nullptr;
            }
            bool named = memcmp(header, "bild", 4) == 0 || memcmp(header, "bimp", 4) == 0;
            if (!named || LoadI32(header + 4) <= 0 || LoadI32(header + 8) <= 0) {
                TL_CLOSE(file);  // not ours; LastImageType stays as it was
                return nullptr;
            }
            type = RasTypeOf(header);
        }
        TL_CLOSE(file);
        LastImageType = type;
        if (type != TypeRAS && imageNumber >= 1) return nullptr;
    }
    switch (type) {
        case TypeBMP:
            return ReadDIB(name, imageNumber);
        case TypePCX:
            return ReadPCX(name, imageNumber);
        case TypeTIFF:
            return ReadTIF(name, imageNumber);
        case TypeRAS:
            return ReadRAS(name, imageNumber);
        default:  // unknown: no image, and no error
            return nullptr;
    }
}
