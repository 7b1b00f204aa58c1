// code_tables.cpp - the CCITT state tables and the look-up tables of the
// fast path, built at compile time from the code-word lists of
// code_words.h, and the small fixed tables.
#include "fax/code_tables.h"

#include "fax/code_words.h"

constexpr std::array<uint16_t, FaxRunRows * 256> FaxRunTable = faxcodes::BuildRunTable();
constexpr std::array<uint16_t, FaxModeRows * 256> FaxModeTable = faxcodes::BuildModeTable();
constexpr std::array<uint16_t, FaxUncompressedRows * 256> FaxUncompressedTable =
    faxcodes::BuildUncompressedTable();

constexpr uint8_t FaxBitMask[8] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};
constexpr uint8_t FaxLeftMask[9] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};

namespace {
constexpr std::array<uint8_t, 256> LeadingBits(bool ones) {
    std::array<uint8_t, 256> t{};
    for (uint32_t v = 0; v < 256; ++v) {
        uint32_t x = ones ? (~v & 0xFFu) : v;
        uint8_t n = 0;
        while (n < 8 && !(x & (0x80u >> n))) ++n;
        t[v] = n;
    }
    return t;
}
}  // namespace

constexpr std::array<uint8_t, 256> FaxLeadingZeros = LeadingBits(false);

constexpr std::array<uint16_t, 2 * 256> FaxRunFirst = faxcodes::BuildRunFirst();
constexpr std::array<uint16_t, 2 * 8192> FaxRunLong = faxcodes::BuildRunLong();
constexpr std::array<uint8_t, 128> FaxModeFirst = faxcodes::BuildModeFirst();
constexpr std::array<uint16_t, 2 * FaxPairEntries> FaxPairFirst = faxcodes::BuildPairFirst();
constexpr std::array<uint16_t, 256> FaxModePair = faxcodes::BuildModePair();
