// The arrangement of the resize scratch fits the buffer-size formula for every
// destination extent, with the worst alignment of the buffer.
#include <gtest/gtest.h>

#include "volume/resize_internal.h"

using namespace qelr::volume::resize;

TEST(ResizeScratch, FitsTheFormula) {
    const int32_t extents[] = {1,  2,  3,  4,  5,   15,  16,  17,   31,
                               33, 63, 64, 65, 100, 127, 129, 1000, 4097};
    for (int mode : {1, 2, 4}) {
        for (int32_t w : extents)
            for (int32_t h : extents)
                for (int32_t d : extents) {
                    const int64_t granted = bytesPerThread(mode, w, h, d);
                    const Scratch s = carveScratch(mode, w, h, d, nullptr);
                    ASSERT_LE(static_cast<int64_t>(s.bytesUsed), granted)
                        << mode << " " << w << "x" << h << "x" << d;
                }
    }
    for (int32_t w = 1; w < 300; ++w)
        for (int mode : {1, 2, 4})
            ASSERT_LE(static_cast<int64_t>(carveScratch(mode, w, 1, 1, nullptr).bytesUsed),
                      bytesPerThread(mode, w, 1, 1));
}
