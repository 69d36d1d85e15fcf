// Eye rays, hit points and the four intersection forms on a small fuzzed scene.
#include "fuzz_scene.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    Arena a;
    const bool misalign = in.u8() < 64;
    switch (in.range(0, 3)) {
        case 0: {  // eye rays: only dirs is checked; width/height below 1 write nothing
            const int w = in.flag() ? 4 * in.range(-1, 3) : in.range(-2, 9);
            const int h = in.range(-1, 6);
            const size_t n = (w > 0 && h > 0) ? size_t(w) * h : 0;
            float v[9];
            for (float& f : v) f = in.f32();
            const int bw = in.size(64), bh = in.size(64);
            const QelPos2D pos{in.size(64), in.size(64)};
            const bool null = in.u8() < 16;
            float** dirs = a.planes3(in, n, misalign, false);
            const QelStatus st = qelrCastEye_32f(v, v + 3, v + 6, bw, bh, pos, null ? nullptr : dirs, {w, h});
            if (st != (null ? qelErrNullPointer : qelOk)) abort();
            break;
        }
        case 1: {  // hit points, both forms
            const bool multi = in.flag();
            const int len = in.length();
            const size_t n = len > 0 ? size_t(len) : 0;
            float origin[3] = {in.f32(), in.f32(), in.f32()};
            float** origins = a.planes3(in, n, misalign);
            float** dirs = a.planes3(in, n, misalign);
            float* dist = a.floats(in, n, misalign);
            int* mask = a.mask(in, n, 5, misalign);
            float** points = a.planes3(in, n, misalign, false);
            const float eps = in.f32();
            Nulls pick(in);
            const QelStatus st =
                multi ? qelrHitPoint3DEpsM0_32f_M(pick(4, origins), pick(0, dirs), pick(1, dist), pick(2, mask),
                                                  pick(3, points), len, eps)
                      : qelrHitPoint3DEpsS0_32f_M(origin, pick(0, dirs), pick(1, dist), pick(2, mask),
                                                  pick(3, points), len, eps);
            if (st != (pick.any ? qelErrNullPointer : qelOk)) abort();
            break;
        }
        default: {  // intersections
            const Mesh m = readMesh(in, a, 12, 12);
            Scene s;
            if (buildScene(in, a, m, s)) traceRays(in, a, s, m.nt);
            break;
        }
    }
    return 0;
}
