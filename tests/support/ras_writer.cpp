#include "support/ras_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "core/bytes.h"

namespace test {

namespace {

void PutText(std::vector<uint8_t> &b, size_t at, const char *text, size_t most) {
    memcpy(b.data() + at, text, strnlen(text, most));
}

// Bytes in front of the stored size, and between it and the pixels.
struct Parts {
    size_t prefix, gap;
    bool storedSize;
};
Parts PartsOf(const RasLayout &l) {
    if (!l.bimp && !l.variable) return {0, size_t(l.before + l.after), false};
    if (!l.bimp || l.dim > 0) return {size_t(l.before), size_t(l.dim + l.after), true};
    return {0, size_t(l.before + l.after), true};
}

// Rows and columns of a fixed picture: the layout's, or those of the first picture.
int32_t FixedRows(const RasLayout &l, const RasPicture &first) { return l.headerRows ? l.headerRows : first.rows; }
int32_t FixedCols(const RasLayout &l, const RasPicture &first) { return l.headerCols ? l.headerCols : first.cols; }
size_t FixedPixelBytes(const RasLayout &l, const RasPicture &first) {
    return (size_t(l.bits) * size_t(FixedRows(l, first)) * size_t(FixedCols(l, first)) + 7) / 8;
}
size_t RecordBytes(const RasLayout &l, const RasPicture &first) {
    const Parts p = PartsOf(l);
    return p.prefix + (p.storedSize ? 8 : 0) + p.gap + FixedPixelBytes(l, first);
}

std::vector<uint8_t> HeaderFor(const RasLayout &l, const RasPicture &first) {
    RasHeader h(l.bimp ? "bimp" : "bild", l.variable ? 1 : int32_t(RecordBytes(l, first)));
    if (l.bimp && !l.palette.empty()) {
        std::string text;  // 9 chars an entry; entries 8 on start the next slot
        for (const auto &c : l.palette) {
            char entry[10];
            snprintf(entry, sizeof entry, "%02X%02X%02X%02X ", c[0], c[1], c[2], c[3]);
            text += entry;
        }
        h.Key(0, "clrs", std::to_string(l.palette.size())).Key(3, "rgbq", text.substr(0, 72));
        if (text.size() > 72) h.Key(4, "", text.substr(72));
    }
    if (l.before > 0) h.Element("info", l.before, 0, 8);
    if (l.bimp && l.dim > 0) h.Element("dims", l.dim, 0, 8);
    const bool v = l.variable;
    h.Element("bild", v ? -1 : FixedRows(l, first), v ? -1 : FixedCols(l, first), l.bits, l.order0, 2);
    if (l.after > 0) h.Element("note", l.after, 0, 8);
    return h.bytes;
}

// The stored pixel bytes of one picture, without padding to a fixed size.
std::vector<uint8_t> PixelsFor(const RasLayout &l, const RasPicture &pic) {
    const size_t stride = size_t(((l.bits * pic.cols + 31) >> 3) & ~3);
    auto row = [&](int32_t r) { return l.order0 > 0 ? r : pic.rows - 1 - r; };  // stored row r
    std::vector<uint8_t> out(l.bits == 1 && !l.bimp ? (size_t(pic.rows) * size_t(pic.cols) + 7) / 8
                             : l.bits == 8 && !(l.bimp && l.variable) ? size_t(pic.rows) * size_t(pic.cols)
                                                                       : stride * size_t(pic.rows),
                             0);
    for (int32_t r = 0; r < pic.rows; ++r)
        for (int32_t x = 0; x < pic.cols; ++x) {
            uint8_t v = pic.At(x, row(r));
            size_t bit = size_t(r) * size_t(pic.cols) + size_t(x);  // "bild" 1-bit rows run on bit by bit
            if (l.bits == 1 && !l.bimp && v) out[bit / 8] |= uint8_t(0x80 >> (bit % 8));
            if (l.bits == 1 && l.bimp && !v) out[size_t(r) * stride + size_t(x) / 8] |= uint8_t(0x80 >> (x % 8));
            if (l.bits == 4) out[size_t(r) * stride + size_t(x) / 2] |= uint8_t((v & 15) << (x % 2 ? 0 : 4));
            if (l.bits == 8) out[size_t(r) * size_t(pic.cols) + size_t(x)] = v;  // rows Cols bytes apart
        }
    return out;
}

}  // namespace

RasHeader::RasHeader(const char *magic, int32_t recordSize) : bytes(2444, 0) {
    PutText(bytes, 0, magic, 4);
    StoreU32(&bytes[4], uint32_t(recordSize));
    StoreU32(&bytes[8], 1);
}

RasHeader &RasHeader::Element(const char *name, int32_t dim0, int32_t dim1, int32_t bits, int8_t order0,
                              int8_t order1, const char *type) {
    const size_t s = size_t(slot++);
    PutText(bytes, 2124 + 4 * s, name, 4);
    StoreU32(&bytes[2188 + 8 * s], uint32_t(dim0));
    StoreU32(&bytes[2192 + 8 * s], uint32_t(dim1));
    bytes[2316 + 2 * s] = uint8_t(order0);
    bytes[2317 + 2 * s] = uint8_t(order1);
    PutText(bytes, 2348 + 2 * s, type ? type : bits == 8 ? "un" : "bi", 2);
    StoreU32(&bytes[2380 + 4 * s], uint32_t(bits));
    return *this;
}

RasHeader &RasHeader::Key(int k, const char *key, const std::string &value) {
    PutText(bytes, 12 + 4 * size_t(k), key, 4);
    memcpy(bytes.data() + 76 + 128 * size_t(k), value.data(), value.size());
    return *this;
}

std::vector<RasRecordPlace> RasPlaces(const RasLayout &l, const std::vector<RasPicture> &pictures) {
    std::vector<RasRecordPlace> places;
    const Parts p = PartsOf(l);
    size_t at = 2444;
    for (const auto &pic : pictures) {
        RasRecordPlace place{at, at + p.prefix, at + p.prefix + (p.storedSize ? 8 : 0) + p.gap, 0};
        place.end = l.variable ? place.pixels + PixelsFor(l, pic).size() : at + RecordBytes(l, pictures[0]);
        places.push_back(place);
        at = place.end;
    }
    return places;
}

std::vector<uint8_t> MakeRas(const RasLayout &l, const std::vector<RasPicture> &pictures) {
    std::vector<uint8_t> file = HeaderFor(l, pictures.at(0));
    auto places = RasPlaces(l, pictures);
    for (size_t i = 0; i < pictures.size(); ++i) {
        file.resize(places[i].end, 0xA5);  // bytes of the elements that are stepped over
        if (l.bimp || l.variable) {
            StoreU32(&file[places[i].size], uint32_t(pictures[i].rows));
            StoreU32(&file[places[i].size + 4], uint32_t(pictures[i].cols));
        }
        std::vector<uint8_t> pixels = PixelsFor(l, pictures[i]);
        if (!l.variable) pixels.resize(FixedPixelBytes(l, pictures[0]), 0);
        size_t room = places[i].end > places[i].pixels ? places[i].end - places[i].pixels : 0;
        memcpy(file.data() + places[i].pixels, pixels.data(), std::min(pixels.size(), room));
    }
    return file;
}

RasPicture PatternPicture(int32_t rows, int32_t cols, int32_t bits, uint32_t seed) {
    RasPicture p{rows, cols, std::vector<uint8_t>(size_t(rows) * size_t(cols))};
    uint32_t v = seed * 2654435761u + 12345u;
    for (auto &value : p.values) {
        v = v * 1103515245u + 12345u;
        value = uint8_t((v >> 16) & ((1u << bits) - 1));
    }
    return p;
}

std::vector<std::array<uint8_t, 4>> TestPalette(int count) {
    std::vector<std::array<uint8_t, 4>> out;
    for (int i = 0; i < count; ++i) out.push_back({uint8_t(i * 17), uint8_t(255 - i * 13), uint8_t(i * 97), 0});
    return out;
}

}  // namespace test
