// Triangle and surface normals and the masked per-ray operations.
#include "fuzz_scene.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    Arena a;
    const int fn = in.range(0, 11);
    const bool misalign = in.u8() < 64;
    Nulls chk(in);
    if (fn == 0) {  // per-triangle normals (parallel)
        const Mesh m = readMesh(in, a, 12, 40);
        const int count = in.flag() ? m.nt : in.size(0);
        qelSetNumThreads(in.range(1, 3));
        float* normals = a.alloc<float>(3 * size_t(m.nt));
        const QelStatus st = qelrTriangleNormal_32f(chk(0, m.vertices), chk(1, m.indices), chk(2, normals),
                                                    count > 0 ? m.nt : count);
        if (st != (chk.any ? qelErrNullPointer : qelOk)) abort();
        return 0;
    }
    const int len = in.length();
    const size_t n = len > 0 ? size_t(len) : 0;
    const int nt = in.range(1, 6);
    int* mask = a.mask(in, n, nt - 1, misalign);
    float** A = a.planes3(in, n, misalign);
    float** B = a.planes3(in, n, misalign);
    float** out = a.planes3(in, n, misalign);
    float* s1 = a.floats(in, n, misalign);
    float* s2 = a.floats(in, n, misalign);
    float triple[3] = {in.f32(), in.f32(), in.f32()};
    QelStatus st = qelOk;
    switch (fn) {
        case 1:
            st = qelrSurfFlatNormal_32f(chk(0, a.floats(in, 3 * size_t(nt))), chk(1, mask), out, len);
            break;
        case 2: {
            const int g = in.range(3, 5), nv = in.range(1, 6);
            float* vn = a.floats(in, 3 * size_t(nv));
            int* ti = a.fill<int>(size_t(g) * nt, false, [&] { return in.range(0, nv - 1); });
            float* uv[2] = {s1, s2};
            st = qelrSurfSmoothNormal_32f(chk(0, vn), chk(1, ti), chk(2, mask), chk(3, uv), chk(4, out), len, g);
            break;
        }
        case 3: st = qelrDot_32f_P3C1M(chk(0, A), chk(1, B), chk(2, mask), chk(3, s1), len); break;
        case 4: st = qelrDotChangeNorm_32f_IM(chk(0, A), chk(1, mask), chk(2, out), chk(3, s1), len); break;
        case 5: st = qelrDistAttenuationSO_32f_M(triple, chk(0, A), chk(1, mask), chk(2, s1), len); break;
        case 6:
            st = qelrCastShadowSO_32f(triple, chk(0, s1), chk(1, A), chk(2, B), chk(3, mask), chk(5, s2),
                                      chk(4, out), len);
            break;
        case 7: st = qelrCastReflectionRay_32f(chk(0, A), chk(1, mask), chk(2, B), chk(3, out), len); break;
        case 8: st = qelrMul_32f_C1IM(s1, mask, s2, len); break;
        case 9: st = qelrMul_32f_C1P3IM(chk(0, s1), chk(1, mask), chk(2, out), len); break;
        case 10:
            st = qelrDiv_32f_C1IM(chk(0, s1), mask, chk(1, s2), len);
            if (st == qelWarnDivisionByZero) st = qelOk;
            break;
        default:
            st = qelrAddMulMul_32f_AC1P3IM(triple, chk(0, s1), chk(1, A), chk(2, mask), chk(3, out), len);
            break;
    }
    if (st != (chk.any ? qelErrNullPointer : qelOk)) abort();
    return 0;
}
