// Spherical harmonics: state size and initialisation, basis and band evaluation, forward and inverse transforms.
#include "fuzz_input.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    Arena a;
    const int fn = in.range(0, 9);
    const uint32_t alg = in.u8() < 224 ? uint32_t(in.range(0, 1)) : in.u32();
    const uint32_t stateOrder = uint32_t(in.range(0, 20));
    Nulls chk(in);
    uint32_t bytes = 0;
    const QelStatus sz = qelrSHGetSize_32f(stateOrder, alg, fn == 0 ? chk(0, &bytes) : &bytes);
    const QelStatus want = chk.any ? qelErrNullPointer : alg > 1 ? qelErrBadArgument
                                   : (alg == 0 && stateOrder > 15) ? qelErrSize : qelOk;
    if (sz != want) abort();
    if (fn == 0 || sz != qelOk) return 0;
    // The state block at exactly the reported size, on a 16-byte boundary.
    auto* engine = reinterpret_cast<QelSHEngine*>(a.alloc<uint8_t>(bytes));
    if (qelrSHInit_32f(engine, stateOrder, alg) != qelOk) abort();
    if (fn == 1) return 0;

    const int n = in.flag() ? in.range(1, 6) : in.size(6);
    const size_t nn = n > 0 ? size_t(n) : 0;
    const uint32_t order = in.u8() < 200 ? uint32_t(in.range(0, 17)) : in.u32();
    const bool misalign = in.u8() < 64;
    float* x = a.floats(in, nn, misalign);
    float* y = a.floats(in, nn, misalign);
    float* z = a.floats(in, nn, misalign);
    const size_t K = order <= 20 ? size_t(order + 1) * (order + 1) : 0;  // coefficients per direction
    QelStatus st;
    auto three = [&](size_t m, bool fill) {
        float** p = a.alloc<float*>(3);
        for (int c = 0; c < 3; ++c) p[c] = chk(3 + c, fill ? a.floats(in, m) : a.alloc<float>(m));
        return p;
    };
    switch (fn) {
        case 2: st = qelrSH_32f(chk(0, x), chk(1, y), chk(2, z), n, chk(3, a.alloc<float>(nn * K)), order, chk(4, engine)); break;
        case 3: {
            const size_t band = order <= 20 ? 2 * size_t(order) + 1 : 0;
            st = qelrSHBand_32f(chk(0, x), chk(1, y), chk(2, z), n, chk(3, a.alloc<float>(nn * band)), order);
            break;
        }
        case 4: st = qelrSHTFwd_32f_C1I(chk(0, x), chk(1, y), chk(2, z), chk(4, a.floats(in, nn)), n, chk(5, a.floats(in, K)), order, chk(6, engine)); break;
        case 5: st = qelrSHTFwd_32f_C3P3I(chk(0, x), chk(1, y), chk(2, z), chk(6, a.floats(in, 3 * nn)), n, three(K, true), order, engine); break;
        case 6: st = qelrSHTFwd_32f_P3I(chk(0, x), chk(1, y), chk(2, z), three(nn, true), n, three(K, true), order, engine); break;
        case 7: st = qelrSHTInv_32f_C1(chk(4, a.floats(in, K)), order, chk(0, x), chk(1, y), chk(2, z), chk(5, a.alloc<float>(nn)), n, chk(6, engine)); break;
        case 8: st = qelrSHTInv_32f_P3(three(K, true), order, chk(0, x), chk(1, y), chk(2, z), three(nn, false), n, engine); break;
        default: st = qelrSHTInv_32f_P3C3(three(K, true), order, chk(0, x), chk(1, y), chk(2, z), chk(6, a.alloc<float>(3 * nn)), n, engine); break;
    }
    // The checks: pointers, then the count, then the order (the band form
    // looks at the band before the count).
    QelStatus expect = chk.any ? qelErrNullPointer : n == 0 ? qelErrSize
                       : (order > stateOrder || order > 15) ? qelErrBadArgument : qelOk;
    if (fn == 3) expect = chk.any ? qelErrNullPointer : order > 15 ? qelErrBadArgument : n == 0 ? qelErrSize : qelOk;
    // A count below 0 with 15 < order <= the state's order: both refusals are fine.
    if (n < 0 && fn >= 4 && expect == qelErrBadArgument && order <= stateOrder && st == qelOk) st = expect;
    if (st != expect) {
        fprintf(stderr, "fn %d status %d, expected %d (n %d, order %u, state order %u)\n", fn, st, expect, n, order, stateOrder);
        abort();
    }
    return 0;
}
