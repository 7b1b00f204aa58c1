// tiff_builder.h - writes small TIFF files field by field, for the tests of
// strips that no encoder writes on request.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace test {

struct TiffBuilder {
    struct Field {
        uint16_t tag;
        uint16_t type;
        uint32_t count;
        std::vector<uint8_t> data;  // the values in host order, type size x count bytes
    };

    std::vector<Field> fields;
    std::vector<std::vector<uint8_t>> strips;
    // Adds StripOffsets (LONG) for the strips, and StripByteCounts unless
    // told not to, when no such field was given.
    bool autoOffsets = true;
    bool autoCounts = true;

    TiffBuilder &Short(uint16_t tag, uint16_t v) { return Shorts(tag, {v}); }
    TiffBuilder &Long(uint16_t tag, uint32_t v) { return Longs(tag, {v}); }
    TiffBuilder &Shorts(uint16_t tag, const std::vector<uint16_t> &v) {
        Field f{tag, 3, uint32_t(v.size()), {}};
        for (uint16_t x : v) f.data.insert(f.data.end(), {uint8_t(x), uint8_t(x >> 8)});
        return Put(f);
    }
    TiffBuilder &Longs(uint16_t tag, const std::vector<uint32_t> &v) {
        Field f{tag, 4, uint32_t(v.size()), {}};
        for (uint32_t x : v) f.data.insert(f.data.end(), {uint8_t(x), uint8_t(x >> 8), uint8_t(x >> 16), uint8_t(x >> 24)});
        return Put(f);
    }
    TiffBuilder &Put(const Field &f) {
        for (auto &g : fields)
            if (g.tag == f.tag) {
                g = f;
                return *this;
            }
        fields.push_back(f);
        return *this;
    }
    // A bilevel image of the given size and compression, in one strip per
    // element of `stripData`.
    static TiffBuilder Bilevel(uint32_t width, uint32_t height, uint16_t compression,
                               std::vector<std::vector<uint8_t>> stripData, uint32_t rowsPerStrip = 0) {
        TiffBuilder b;
        b.Long(256, width).Long(257, height).Short(258, 1).Short(259, compression);
        if (rowsPerStrip) b.Long(278, rowsPerStrip);
        b.strips = std::move(stripData);
        return b;
    }

    std::vector<uint8_t> Build() const {
        std::vector<uint8_t> out(8, 0);
        auto put16 = [&](size_t at, uint16_t v) { out[at] = uint8_t(v), out[at + 1] = uint8_t(v >> 8); };
        auto put32 = [&](size_t at, uint32_t v) {
            for (int i = 0; i < 4; ++i) out[at + i] = uint8_t(v >> (8 * i));
        };
        out[0] = out[1] = 'I';
        put16(2, 42);
        std::vector<uint32_t> offsets, counts;
        for (const auto &s : strips) {
            offsets.push_back(uint32_t(out.size()));
            counts.push_back(uint32_t(s.size()));
            out.insert(out.end(), s.begin(), s.end());
        }
        std::vector<Field> all = fields;
        auto has = [&](uint16_t tag) {
            for (auto &f : all) if (f.tag == tag) return true;
            return false;
        };
        TiffBuilder helper;
        if (autoOffsets && !strips.empty() && !has(273)) all.push_back(helper.Longs(273, offsets).fields.back());
        if (autoCounts && !strips.empty() && !has(279)) all.push_back(helper.Longs(279, counts).fields.back());
        std::sort(all.begin(), all.end(), [](const Field &a, const Field &b) { return a.tag < b.tag; });
        // Out-of-line values first, then the directory.
        std::vector<uint32_t> where(all.size(), 0);
        for (size_t i = 0; i < all.size(); ++i) {
            if (all[i].data.size() <= 4) continue;
            if (out.size() & 1) out.push_back(0);
            where[i] = uint32_t(out.size());
            out.insert(out.end(), all[i].data.begin(), all[i].data.end());
        }
        if (out.size() & 1) out.push_back(0);
        const size_t dir = out.size();
        put32(4, uint32_t(dir));
        out.resize(dir + 2 + 12 * all.size() + 4, 0);
        put16(dir, uint16_t(all.size()));
        for (size_t i = 0; i < all.size(); ++i) {
            const size_t e = dir + 2 + 12 * i;
            put16(e, all[i].tag);
            put16(e + 2, all[i].type);
            put32(e + 4, all[i].count);
            if (all[i].data.size() <= 4) {
                std::copy(all[i].data.begin(), all[i].data.end(), out.begin() + long(e + 8));
            } else {
                put32(e + 8, where[i]);
            }
        }
        return out;
    }
};

}  // namespace test
