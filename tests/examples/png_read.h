// A strict reader of 8-bit RGB PNG files, for checking what the renderer writes: signature, chunk CRCs, header,
// zlib stream and row filters.
#pragma once

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace qelr_test {

struct RgbImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;  // three bytes per pixel, rows top to bottom
};

// Decodes `png`; on failure returns false and says why in `error`.
inline bool decodePng(const std::vector<uint8_t>& png, RgbImage& image, std::string& error) {
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    auto fail = [&](const std::string& why) {
        error = why;
        return false;
    };
    auto be32 = [&](size_t at) {
        return uint32_t(png[at]) << 24 | uint32_t(png[at + 1]) << 16 | uint32_t(png[at + 2]) << 8 | png[at + 3];
    };
    if (png.size() < 8 || !std::equal(kSignature, kSignature + 8, png.begin())) return fail("no PNG signature");
    std::vector<uint8_t> packed;
    bool header = false, end = false;
    for (size_t at = 8; !end; at += 12 + be32(at)) {
        if (at + 12 > png.size()) return fail("truncated chunk");
        const uint32_t size = be32(at);
        if (size > png.size() - at - 12) return fail("chunk longer than the file");
        const std::string type(png.begin() + at + 4, png.begin() + at + 8);
        const uint8_t* data = &png[at + 8];
        if (crc32(0L, &png[at + 4], size + 4) != be32(at + 8 + size)) return fail("bad CRC in " + type);
        if (type == "IHDR") {
            if (size != 13 || data[8] != 8 || data[9] != 2 || data[10] || data[11] || data[12])
                return fail("not an 8-bit RGB image");
            image.width = int(be32(at + 8));
            image.height = int(be32(at + 12));
            header = image.width > 0 && image.height > 0;
        } else if (type == "IDAT") {
            packed.insert(packed.end(), data, data + size);
        }
        end = type == "IEND";
    }
    if (!header) return fail("no valid IHDR");
    const size_t rowBytes = size_t(image.width) * 3;
    std::vector<uint8_t> raw((rowBytes + 1) * image.height);
    uLongf rawSize = uLongf(raw.size());
    if (uncompress(raw.data(), &rawSize, packed.data(), uLong(packed.size())) != Z_OK || rawSize != raw.size())
        return fail("bad image data");
    image.rgb.assign(rowBytes * image.height, 0);
    for (int y = 0; y < image.height; ++y) {
        const uint8_t filter = raw[y * (rowBytes + 1)];
        if (filter > 4) return fail("bad row filter");
        const uint8_t* in = &raw[y * (rowBytes + 1) + 1];
        uint8_t* row = &image.rgb[y * rowBytes];
        const uint8_t* prev = y > 0 ? row - rowBytes : nullptr;
        for (size_t i = 0; i < rowBytes; ++i) {
            // Left, up and up-left; Paeth takes the one nearest a + b - c (distances |b - c|, |a - c|, |a + b - 2c|).
            const int a = i >= 3 ? row[i - 3] : 0, b = prev ? prev[i] : 0, c = (prev && i >= 3) ? prev[i - 3] : 0;
            const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
            const int predicted[5] = {0, a, b, (a + b) / 2, pa <= pb && pa <= pc ? a : pb <= pc ? b : c};
            row[i] = uint8_t(in[i] + predicted[filter]);
        }
    }
    return true;
}

}  // namespace qelr_test
