#include "support/ras_writer.h"

#include <cstdio>
#include <cstring>

namespace test {

namespace {

constexpr size_t HeaderSize = 2444;
constexpr uint8_t Filler = 0xA5;  // bytes of the elements that are stepped over

void PutI32(std::vector<uint8_t> &b, size_t at, int32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(uint32_t(v) >> (8 * i));
}
void PutText(std::vector<uint8_t> &b, size_t at, const std::string &text) {
    memcpy(b.data() + at, text.data(), text.size());
}

struct Parts {
    size_t prefix = 0, gap = 0;
    bool storedSize = true;
};

// Where the stored size and the pixels stand in a record of this layout.
Parts PartsOf(const RasLayout &l) {
    Parts p;
    if (!l.bimp && !l.variable) {
        p.storedSize = false;
        p.gap = size_t(l.before + l.after);
    } else if (!l.bimp) {
        p.prefix = size_t(l.before);
        p.gap = size_t(l.after);
    } else if (l.dim > 0) {
        p.prefix = size_t(l.before);
        p.gap = size_t(l.dim + l.after);
    } else {
        p.gap = size_t(l.before + l.after);
    }
    return p;
}

int32_t Stride(int32_t cols, int32_t bits) { return ((bits * cols + 31) >> 3) & ~3; }

int32_t FixedRows(const RasLayout &l, const RasPicture &first) { return l.headerRows ? l.headerRows : first.rows; }
int32_t FixedCols(const RasLayout &l, const RasPicture &first) { return l.headerCols ? l.headerCols : first.cols; }

size_t FixedPixelBytes(const RasLayout &l, const RasPicture &first) {
    return (size_t(l.bits) * size_t(FixedRows(l, first)) * size_t(FixedCols(l, first)) + 7) / 8;
}

size_t RecordBytes(const RasLayout &l, const RasPicture &first) {
    Parts p = PartsOf(l);
    return p.prefix + (p.storedSize ? 8 : 0) + p.gap + FixedPixelBytes(l, first);
}

}  // namespace

std::vector<uint8_t> RasHeaderFor(const RasLayout &l, const RasPicture &first) {
    std::vector<uint8_t> h(HeaderSize, 0);
    PutText(h, 0, l.bimp ? "bimp" : "bild");
    int32_t recordSize = l.variable ? 1 : (l.recordSize ? l.recordSize : int32_t(RecordBytes(l, first)));
    PutI32(h, 4, recordSize);
    PutI32(h, 8, 1);

    // Keyed texts: a description, and for "bimp" the palette.
    PutText(h, 12 + 4 * 1, "desc");
    PutText(h, 76 + 128 * 1, "made by the tests' RAS writer");
    if (l.bimp && !l.palette.empty()) {
        PutText(h, 12, "clrs");
        PutText(h, 76, std::to_string(l.palette.size()));
        PutText(h, 12 + 4 * size_t(l.rgbqSlot), "rgbq");
        for (size_t e = 0; e < l.palette.size(); ++e) {
            char text[10];
            const auto &c = l.palette[e];
            snprintf(text, sizeof text, "%02X%02X%02X%02X ", c[0], c[1], c[2], c[3]);
            size_t at = e < 8 ? 76 + 128 * size_t(l.rgbqSlot) + 9 * e : 76 + 128 * size_t(l.rgbqSlot + 1) + 9 * (e - 8);
            PutText(h, at, std::string(text, 9));
        }
    }

    // Element descriptors, closed by an empty name.
    int slot = 0;
    auto element = [&](const char *name, int32_t dim0, int32_t dim1, int8_t o0, int8_t o1, const char *type,
                       int32_t bits) {
        PutText(h, 2124 + 4 * size_t(slot), name);
        PutI32(h, 2188 + 8 * size_t(slot), dim0);
        PutI32(h, 2192 + 8 * size_t(slot), dim1);
        h[2316 + 2 * size_t(slot)] = uint8_t(o0);
        h[2317 + 2 * size_t(slot)] = uint8_t(o1);
        PutText(h, 2348 + 2 * size_t(slot), type);
        PutI32(h, 2380 + 4 * size_t(slot), bits);
        ++slot;
    };
    if (l.before > 0) element("info", l.before, 0, 0, 0, "un", 8);
    if (l.bimp && l.dim > 0) element("dims", l.dim, 0, 0, 0, "un", 8);
    if (l.variable)
        element("bild", -1, -1, l.order0, 2, l.bits == 8 ? "un" : "bi", l.bits);
    else
        element("bild", FixedRows(l, first), FixedCols(l, first), l.order0, 2, l.bits == 8 ? "un" : "bi", l.bits);
    if (l.after > 0) element("note", l.after, 0, 0, 0, "un", 8);
    return h;
}

std::vector<uint8_t> RasPixelsFor(const RasLayout &l, const RasPicture &pic) {
    const int32_t stride = Stride(pic.cols, l.bits);
    std::vector<uint8_t> out;
    // Stored row r is the picture's row r (top first) or its mirror.
    auto row = [&](int32_t r) { return l.order0 > 0 ? r : pic.rows - 1 - r; };
    if (l.bits == 1 && !l.bimp) {
        out.assign((size_t(pic.rows) * size_t(pic.cols) + 7) / 8, 0);
        size_t bit = 0;
        for (int32_t r = 0; r < pic.rows; ++r)
            for (int32_t x = 0; x < pic.cols; ++x, ++bit)
                if (pic.At(x, row(r))) out[bit / 8] |= uint8_t(0x80 >> (bit % 8));
    } else if (l.bits == 1) {
        out.assign(size_t(stride) * size_t(pic.rows), 0);
        for (int32_t r = 0; r < pic.rows; ++r)
            for (int32_t x = 0; x < pic.cols; ++x)
                if (!pic.At(x, row(r))) out[size_t(r) * stride + size_t(x) / 8] |= uint8_t(0x80 >> (x % 8));
    } else if (l.bits == 4) {
        out.assign(size_t(stride) * size_t(pic.rows), 0);
        for (int32_t r = 0; r < pic.rows; ++r)
            for (int32_t x = 0; x < pic.cols; ++x)
                out[size_t(r) * stride + size_t(x) / 2] |= uint8_t((pic.At(x, row(r)) & 15) << (x % 2 ? 0 : 4));
    } else {
        for (int32_t r = 0; r < pic.rows; ++r)
            for (int32_t x = 0; x < pic.cols; ++x) out.push_back(pic.At(x, row(r)));
        // A "bimp" record of its own size holds stride x rows pixel bytes;
        // its rows lie Cols bytes apart and the rest follows at the end.
        if (l.bimp && l.variable) out.resize(size_t(stride) * size_t(pic.rows), 0);
    }
    return out;
}

std::vector<RasRecordPlace> RasPlaces(const RasLayout &l, const std::vector<RasPicture> &pictures) {
    std::vector<RasRecordPlace> places;
    Parts p = PartsOf(l);
    size_t at = HeaderSize;
    for (const auto &pic : pictures) {
        RasRecordPlace place;
        place.start = at;
        place.size = at + p.prefix;
        place.pixels = place.size + (p.storedSize ? 8 : 0) + p.gap;
        if (l.variable) {
            place.end = place.pixels + RasPixelsFor(l, pic).size();
        } else {
            size_t recordSize = l.recordSize ? size_t(l.recordSize) : RecordBytes(l, pictures[0]);
            place.end = at + recordSize;
        }
        places.push_back(place);
        at = place.end;
    }
    return places;
}

std::vector<uint8_t> MakeRas(const RasLayout &l, const std::vector<RasPicture> &pictures) {
    std::vector<uint8_t> file = RasHeaderFor(l, pictures.at(0));
    auto places = RasPlaces(l, pictures);
    for (size_t i = 0; i < pictures.size(); ++i) {
        const auto &place = places[i];
        file.resize(place.end, Filler);
        if (l.bimp || l.variable) {
            PutI32(file, place.size, pictures[i].rows);
            PutI32(file, place.size + 4, pictures[i].cols);
        }
        std::vector<uint8_t> pixels = RasPixelsFor(l, pictures[i]);
        if (!l.variable) pixels.resize(FixedPixelBytes(l, pictures[0]), 0);
        size_t room = place.end > place.pixels ? place.end - place.pixels : 0;
        memcpy(file.data() + place.pixels, pixels.data(), pixels.size() < room ? pixels.size() : room);
    }
    return file;
}

RasPicture PatternPicture(int32_t rows, int32_t cols, int32_t bits, uint32_t seed) {
    RasPicture p;
    p.rows = rows;
    p.cols = cols;
    p.values.resize(size_t(rows) * size_t(cols));
    uint32_t v = seed * 2654435761u + 12345u;
    for (auto &value : p.values) {
        v = v * 1103515245u + 12345u;
        value = uint8_t((v >> 16) & ((1u << bits) - 1));
    }
    return p;
}

std::vector<std::array<uint8_t, 4>> TestPalette(int count) {
    std::vector<std::array<uint8_t, 4>> out;
    for (int i = 0; i < count; ++i)
        out.push_back({uint8_t(i * 17), uint8_t(255 - i * 13), uint8_t((i * 97) & 0xFF), 0});
    return out;
}

}  // namespace test
