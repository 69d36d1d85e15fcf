// A strict reader of 8-bit RGB PNG files, for checking what the renderer
// writes: signature, chunk CRCs, header, zlib stream and row filters.
#pragma once

#include <zlib.h>

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
    auto be32 = [&](size_t at) {
        return uint32_t(png[at]) << 24 | uint32_t(png[at + 1]) << 16 | uint32_t(png[at + 2]) << 8 |
               png[at + 3];
    };
    if (png.size() < 8 || !std::equal(kSignature, kSignature + 8, png.begin())) {
        error = "no PNG signature";
        return false;
    }
    std::vector<uint8_t> packed;
    bool header = false, end = false;
    for (size_t at = 8; !end;) {
        if (at + 12 > png.size()) {
            error = "truncated chunk";
            return false;
        }
        const uint32_t size = be32(at);
        if (size > png.size() - at - 12) {
            error = "chunk longer than the file";
            return false;
        }
        const std::string type(png.begin() + at + 4, png.begin() + at + 8);
        const uint8_t* data = &png[at + 8];
        if (crc32(0L, &png[at + 4], size + 4) != be32(at + 8 + size)) {
            error = "bad CRC in " + type;
            return false;
        }
        if (type == "IHDR") {
            if (size != 13 || data[8] != 8 || data[9] != 2 || data[10] || data[11] || data[12]) {
                error = "not an 8-bit RGB image";
                return false;
            }
            image.width = int(be32(at + 8));
            image.height = int(be32(at + 12));
            header = image.width > 0 && image.height > 0;
        } else if (type == "IDAT") {
            packed.insert(packed.end(), data, data + size);
        } else if (type == "IEND") {
            end = true;
        }
        at += 12 + size;
    }
    if (!header) {
        error = "no valid IHDR";
        return false;
    }
    const size_t rowBytes = size_t(image.width) * 3;
    std::vector<uint8_t> raw((rowBytes + 1) * image.height);
    uLongf rawSize = uLongf(raw.size());
    if (uncompress(raw.data(), &rawSize, packed.data(), uLong(packed.size())) != Z_OK ||
        rawSize != raw.size()) {
        error = "bad image data";
        return false;
    }
    image.rgb.assign(rowBytes * image.height, 0);
    for (int y = 0; y < image.height; ++y) {
        const uint8_t filter = raw[y * (rowBytes + 1)];
        const uint8_t* in = &raw[y * (rowBytes + 1) + 1];
        uint8_t* row = &image.rgb[y * rowBytes];
        const uint8_t* prev = y > 0 ? row - rowBytes : nullptr;
        for (size_t i = 0; i < rowBytes; ++i) {
            const int a = i >= 3 ? row[i - 3] : 0, b = prev ? prev[i] : 0,
                      c = (prev && i >= 3) ? prev[i - 3] : 0;
            int p = 0;
            switch (filter) {
                case 0:
                    break;
                case 1:
                    p = a;
                    break;
                case 2:
                    p = b;
                    break;
                case 3:
                    p = (a + b) / 2;
                    break;
                case 4: {
                    const int e = a + b - c, pa = std::abs(e - a), pb = std::abs(e - b),
                              pc = std::abs(e - c);
                    p = (pa <= pb && pa <= pc) ? a : pb <= pc ? b : c;
                    break;
                }
                default:
                    error = "bad row filter";
                    return false;
            }
            row[i] = uint8_t(in[i] + p);
        }
    }
    return true;
}

}  // namespace qelr_test
