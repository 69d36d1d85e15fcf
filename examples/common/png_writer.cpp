#include "png_writer.h"

#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qelr_example {

namespace {

void put32(std::vector<uint8_t>& out, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) out.push_back(uint8_t(v >> s));
}

void putChunk(std::vector<uint8_t>& out, const char type[4], const uint8_t* data, size_t size) {
    put32(out, uint32_t(size));
    const size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data, data + size);
    const uLong crc = crc32(0L, out.data() + start, uInt(size + 4));
    put32(out, uint32_t(crc));
}

int paeth(int a, int b, int c) {
    const int p = a + b - c;
    const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
    if (pa <= pb && pa <= pc) return a;
    return pb <= pc ? b : c;
}

// Filters one row with filter type `type` (0 none, 1 sub, 2 up, 3 average,
// 4 Paeth); `prev` is the previous row or all zeros for the first.
void filterRow(int type, const uint8_t* row, const uint8_t* prev, size_t n, size_t bpp,
               uint8_t* out) {
    for (size_t i = 0; i < n; ++i) {
        const int a = i >= bpp ? row[i - bpp] : 0;
        const int b = prev[i];
        const int c = i >= bpp ? prev[i - bpp] : 0;
        int predicted = 0;
        switch (type) {
            case 1:
                predicted = a;
                break;
            case 2:
                predicted = b;
                break;
            case 3:
                predicted = (a + b) / 2;
                break;
            case 4:
                predicted = paeth(a, b, c);
                break;
            default:
                break;
        }
        out[i] = uint8_t(row[i] - predicted);
    }
}

// Sum of the filtered bytes read as signed values: smaller compresses better.
long costOf(const uint8_t* bytes, size_t n) {
    long sum = 0;
    for (size_t i = 0; i < n; ++i) sum += std::abs(int(int8_t(bytes[i])));
    return sum;
}

}  // namespace

std::vector<uint8_t> encodePng(const uint8_t* pixels, int width, int height, int channels) {
    if (width <= 0 || height <= 0 || (channels != 1 && channels != 3)) return {};
    const size_t bpp = size_t(channels);
    const size_t rowBytes = size_t(width) * bpp;
    std::vector<uint8_t> filtered((rowBytes + 1) * size_t(height));
    std::vector<uint8_t> zeros(rowBytes, 0), trial(rowBytes);
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = pixels + y * rowBytes;
        const uint8_t* prev = y > 0 ? row - rowBytes : zeros.data();
        uint8_t* out = &filtered[y * (rowBytes + 1)];
        long best = -1;
        for (int type = 0; type <= 4; ++type) {
            filterRow(type, row, prev, rowBytes, bpp, trial.data());
            const long cost = costOf(trial.data(), rowBytes);
            if (best < 0 || cost < best) {
                best = cost;
                out[0] = uint8_t(type);
                std::memcpy(out + 1, trial.data(), rowBytes);
            }
        }
    }
    uLongf packedSize = compressBound(uLong(filtered.size()));
    std::vector<uint8_t> packed(packedSize);
    if (compress2(packed.data(), &packedSize, filtered.data(), uLong(filtered.size()), 6) != Z_OK)
        return {};
    packed.resize(packedSize);

    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    uint8_t header[13];
    for (int k = 0; k < 4; ++k) {
        header[k] = uint8_t(uint32_t(width) >> (24 - 8 * k));
        header[4 + k] = uint8_t(uint32_t(height) >> (24 - 8 * k));
    }
    header[8] = 8;                      // bits per channel
    header[9] = channels == 1 ? 0 : 2;  // colour type: grey or RGB
    header[10] = 0;                     // deflate
    header[11] = 0;                     // adaptive filtering
    header[12] = 0;                     // no interlace
    putChunk(png, "IHDR", header, sizeof header);
    putChunk(png, "IDAT", packed.data(), packed.size());
    putChunk(png, "IEND", nullptr, 0);
    return png;
}

bool writePng(const std::string& path, const uint8_t* pixels, int width, int height, int channels) {
    const std::vector<uint8_t> png = encodePng(pixels, width, height, channels);
    if (png.empty()) return false;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    const bool written = std::fwrite(png.data(), 1, png.size(), f) == png.size();
    return std::fclose(f) == 0 && written;
}

}  // namespace qelr_example
