/**
 * @file qelr.h
 * @brief qelr: numerical primitives for ray tracing triangle meshes, shading,
 *        real spherical harmonics and 3-D volume processing.
 *
 * Every function works on caller-owned memory and returns a ::QelStatus
 * (except qelrGetLibVersion()): 0 success, negative an error (no output is
 * written), positive a warning (the function says what it wrote). Arguments
 * are checked first, in the fixed order that each function lists, and the
 * first failing check decides the status. Where a function lists no check for
 * a pointer, that pointer is not checked: passing NULL there is undefined.
 *
 * Conventions of the names: `_32f`, `_16u`, `_16s`, `_8u` element types;
 * `P3` three float planes passed as an array of three pointers (X, Y, Z;
 * element i of the pack is (X[i], Y[i], Z[i])); `C1` one plane; `C3` three
 * interleaved channels; `AC1` a per-element scalar accumulated into the
 * destination; `I` in place; `M` masked by an index plane (>= 0 processed,
 * < 0 left out); `SO`/`MO` and `S0`/`M0` one shared origin or one origin per
 * ray; `V` contiguous volume, `PV` planar volume (one pointer per plane).
 * Two-dimensional ray packs of width x height rays are row-major with a row
 * stride of exactly width elements.
 *
 * @par Results that depend on buffer alignment
 * Most ray and shading functions have a one-ray path and a vector path that
 * is taken when the count is a whole number of groups of four rays and every
 * plane they touch starts on a 16-byte boundary (memory from qelMalloc() is
 * 64-byte aligned). In most of them every lane does the one-ray arithmetic in
 * the same order, so the result does not depend on the path. Three groups of
 * results do:
 * - the hit points of qelrHitPoint3DEpsS0_32f_M() and
 *   qelrHitPoint3DEpsM0_32f_M(): the vector path multiplies
 *   (direction * dist) * eps instead of (direction * eps) * dist, which may
 *   differ in the last bit;
 * - the smooth normals of qelrSurfSmoothNormal_32f(): the vector path
 *   normalises with a refined reciprocal square root instead of a square root
 *   and three divisions (last bits), and at a squared length of exactly the
 *   float epsilon it gives (0, 0, 0) where the one-ray path normalises;
 * - the packet intersection of qelrIntersectEyeSO_32f(),
 *   qelrIntersectMO_32f() and qelrIntersectAnySO_32f() (width and height
 *   multiples of 4, planes aligned): approximate reciprocals change the last
 *   bits of the distances and barycentric weights, and a ray that passes
 *   within rounding of a split plane or a triangle edge may find another
 *   triangle, or none.
 *
 * In qelrCastShadowSO_32f() a negative input mask other than -1 stays as it
 * is on the one-ray path and becomes -1 on the vector path.
 *
 * qelrCastEye_32f() chooses its vector path by the width alone (aligned and
 * unaligned planes give the same values); that path may differ from the
 * one-ray formula in the last bits. qelrIntersectMultipleSO_32f(), the
 * spherical-harmonic and the volume functions give the same bytes for any
 * alignment.
 *
 * @par Instruction sets, NaN and threads
 * The library carries an SSE3 and an AVX2 variant of its kernels and uses
 * the AVX2 one when the processor has it (the environment variable
 * `QELR_CPU=sse3` or `avx2` restricts the choice). Both variants give the
 * same output bytes, with one exception: where two NaN operands meet in one
 * operation, which of the two NaNs (payload and sign) comes out may differ.
 * No function uses fused multiply-adds. The functions marked "parallel" run
 * OpenMP regions whose team size is ownGetNumThreads() (set it with
 * qelSetNumThreads()); their results are the same bytes for any team size.
 * All functions are re-entrant and keep no state between calls.
 *
 * The header compiles as C99 and as C++. Link with `-lqelr -lqelcore`.
 */
#ifndef QELR_H
#define QELR_H

#include <stdint.h>

#include "qelcore.h"

/** @cond QELR_INTERNAL */
#if defined(QELR_BUILDING)
#define QELR_API __attribute__((visibility("default")))
#else
#define QELR_API
#endif
/** @endcond */

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Status values                                                            */
/* ------------------------------------------------------------------------ */

/**
 * @brief Values of ::QelStatus.
 *
 * After an error nothing is written. After warnings 1, 29 and 40 nothing is
 * written; after warning 6 every output is written. The value -2 (no name)
 * reports an internal failure of the cost-driven KD-tree builder.
 */
enum {
    qelOk = 0,                       /**< success */
    qelWarnNothingToDo = 1,          /**< warning: the destination range is empty; nothing written */
    qelWarnDivisionByZero = 6,       /**< warning: a division by zero was resolved by the function's rule; all outputs written */
    qelWarnRegionOutsidePlane = 29,  /**< warning: single-plane remap, region origin outside the plane; nothing written */
    qelWarnRegionOutsideVolume = 40, /**< warning: source box origin outside the source volume; nothing written */
    /* -2: internal failure of the cost-driven KD-tree builder (no name) */
    qelErrNoMemory = -4,             /**< memory could not be had from qelMalloc(), or a KD-tree memory budget below 32 MB */
    qelErrUnknownAlgorithm = -5,     /**< the KD-tree algorithm selector names no algorithm */
    qelErrSize = -6,                 /**< a count, size, extent, box, order or divisor out of range */
    qelErrBadArgument = -7,          /**< an argument outside its accepted set (SH selector, SH order) */
    qelErrNullPointer = -8,          /**< a checked pointer argument is NULL */
    qelErrMemoryBudget = -9,         /**< the KD-tree would outgrow its memory budget */
    qelErrParamRange = -11,          /**< KD-tree depth limit above 50 or quality outside 0.0 to 1.0 */
    qelErrStep = -14,                /**< a row step below 1 (single-plane remap) */
    qelErrInterpolation = -22,       /**< not an accepted interpolation mode */
    qelErrFactor = -23,              /**< a resize factor not above 0 */
    qelErrChannels = -53,            /**< a channel count other than 1 */
    qelErrSingularTransform = -56    /**< the affine warp coefficients are singular */
};

/**
 * @brief Interpolation modes of the volume functions. 3 is not a mode.
 *
 * The cubic modes weight the four taps at offsets -1, 0, +1, +2 around the
 * floor of the sample position; the weights are used as computed, without
 * renormalisation. Resize evaluates the polynomials; remap and warp read them
 * from tables sampled every 0.01 and interpolated linearly.
 */
enum {
    qelInterpNearest = 1,          /**< nearest neighbour */
    qelInterpLinear = 2,           /**< linear in each axis (trilinear) */
    qelInterpCubic = 4,            /**< four-point Lagrange cubic (interpolating) */
    qelInterpCubicBSpline = 5,     /**< cubic B = 1, C = 0 (smoothing) */
    qelInterpCubicCatmullRom = 6,  /**< cubic B = 0, C = 0.5 */
    qelInterpCubicB05C03 = 7       /**< cubic B = 0.5, C = 0.3 */
};

/** @brief Spherical-harmonic state algorithms (selectors of qelrSHInit_32f()). */
enum {
    qelSHDirect = 0,    /**< closed-form polynomial per basis function; orders 0 to 15 */
    qelSHRecurrence = 1 /**< band-by-band recurrence over tables held in the state */
};

/** @brief KD-tree build algorithm: one leaf that lists every triangle. */
#define qelKdSingleLeaf 0x499D3DC2u
/** @brief KD-tree build algorithm: cost-driven (surface-area) tree. */
#define qelKdCostDriven 0x2D07705Bu

/* ------------------------------------------------------------------------ */
/* Records                                                                  */
/* ------------------------------------------------------------------------ */

/** @brief Unsigned 8-bit volume element. */
typedef uint8_t QelU8;

/** @brief A position of a block in block units (qelrCastEye_32f()). */
typedef struct QelPos2D {
    int32_t x; /**< block column */
    int32_t y; /**< block row */
} QelPos2D;

/** @brief The extent of a two-dimensional ray pack, passed by value. */
typedef struct QelSize2D {
    int32_t width;  /**< rays per row; also the row stride of every plane */
    int32_t height; /**< rows */
} QelSize2D;

/** @brief The extent of a layered ray pack (qelrIntersectMultipleSO_32f()). */
typedef struct QelLayeredSize {
    int32_t width;  /**< rays per row */
    int32_t height; /**< rows */
    int32_t layers; /**< hits recorded per ray; layer h starts at element h * width * height */
} QelLayeredSize;

/**
 * @brief The extent of a whole volume, passed by value. Well formed when all
 *        three fields are above 0.
 */
typedef struct QelVolumeSize {
    int32_t width;  /**< elements per row (x) */
    int32_t height; /**< rows per plane (y) */
    int32_t depth;  /**< planes (z) */
} QelVolumeSize;

/**
 * @brief A box (volume of interest) inside a volume, in elements, rows and
 *        planes, passed by value.
 *
 * Well formed when x >= 0, width > 0, y >= 0, height > 0, z >= 0, depth > 0;
 * the functions test these six conditions in that order and answer
 * #qelErrSize (-6) at the first that fails.
 */
typedef struct QelBox3D {
    int32_t x;      /**< first element of each row */
    int32_t y;      /**< first row of each plane */
    int32_t z;      /**< first plane */
    int32_t width;  /**< elements in x */
    int32_t height; /**< rows */
    int32_t depth;  /**< planes */
} QelBox3D;

/** @brief The anchor of the filter kernel: the cell that sits on the destination voxel. */
typedef struct QelOffset3D {
    int32_t x; /**< kernel column */
    int32_t y; /**< kernel row */
    int32_t z; /**< kernel plane */
} QelOffset3D;

/**
 * @brief Per-triangle accelerator record (40 bytes), filled by
 *        qelrTriangleAccelInit() and read by the intersection functions.
 *
 * With V0, V1, V2 the triangle's vertices, e1 = V0 - V2, e2 = V1 - V2 and
 * N = e1 x e2 (in double precision), k is the dominant axis of N (ties go to
 * the lower axis) and (u, v) the two other axes in ascending order. All
 * fields are double results rounded to float. A degenerate triangle (N = 0)
 * has every word 0 and is never hit.
 */
typedef struct TriangleAccel {
    uint32_t axes; /**< bits 0-1 axis v, bits 2-3 axis u, bits 4-5 the dominant normal axis k, bit 31 set when |N[u]| and |N[v]| are both below the double epsilon; 0 marks a degenerate triangle */
    float nu; /**< N[u] / N[k] (0 when bit 31 of axes is set) */
    float pk; /**< reference vertex (the third vertex, V2) on k */
    float nv; /**< N[v] / N[k] (0 when bit 31 of axes is set) */
    float pu; /**< reference vertex on u */
    float pv; /**< reference vertex on v */
    float e0; /**< e2[u] / N[k], negated when k is y: first entry of the inverse projected edge matrix */
    float e1; /**< e2[v] / N[k], negated when k is y */
    float e2; /**< e1[u] / N[k], negated when k is y */
    float e3; /**< e1[v] / N[k], negated when k is y */
} TriangleAccel;

/**
 * @brief KD-tree node (8 bytes), written by qelrKDTreeBuildAlloc().
 *
 * Inner node: word0 >= 0, bits 0-1 the split axis (0 x, 1 y, 2 z),
 * word0 & ~7 the byte offset from this node to its pair of children (the
 * child below the split first, then the one above, 8 bytes apart); word1 the
 * split position (float bits). Leaf: word0 < 0. Listed leaf: word1 >= 0 is the
 * triangle count (0: empty leaf) and the list of 32-bit triangle indices
 * starts at the node's address minus (word0 & ~3) bytes. Inline leaf: word1
 * is also negative, count = word1 & 3, w = word0 & 0x7fffffff,
 * m = (word1 & 0x7ffffffc) >> 2; one or two triangles are w then m, three are
 * m - (w >> 16), m, m + (w & 0xffff).
 */
typedef struct KDTreeNode {
    int32_t word0; /**< kind, axis and child offset, list offset or inline indices (see above) */
    int32_t word1; /**< split position (float bits), triangle count, or inline count and index */
} KDTreeNode;

/** @brief Parameters of qelrKDTreeBuildAlloc(). */
typedef struct KDTreeBuildParams {
    uint32_t algorithm;      /**< #qelKdSingleLeaf or #qelKdCostDriven */
    uint32_t depthLimit;     /**< maximum tree depth, 0 to 50 (0: the root is a leaf) */
    float quality;           /**< cost-driven build: 0.0 (fast build) to 1.0 (best tree) */
    uint32_t memoryBudgetMb; /**< cost-driven build: memory budget in megabytes, at least 32 */
    uint64_t passThrough;    /**< reserved, pass 0 */
} KDTreeBuildParams;

/**
 * @brief What the intersection functions read: the scene box, the
 *        accelerator records and the tree root. The scene is only read and
 *        may be shared by any number of threads.
 */
typedef struct QelTraceScene {
    const float* bounds;        /**< six floats from qelrSetBoundBox_32f(): min x, y, z, max x, y, z (not read by qelrIntersectAnySO_32f()) */
    const TriangleAccel* accel; /**< one record per triangle, from qelrTriangleAccelInit() */
    const KDTreeNode* root;     /**< the tree from qelrKDTreeBuildAlloc() */
} QelTraceScene;

/**
 * @brief Spherical-harmonic state: an opaque caller-allocated block, sized by
 *        qelrSHGetSize_32f() and filled by qelrSHInit_32f().
 *
 * Allocate it 16-byte aligned (qelMalloc() does). After initialisation it is
 * read-only and may be shared by any number of threads; it holds no pointer
 * to outside memory. The caller frees it.
 */
typedef struct QelSHEngine QelSHEngine;

/** @brief The version record returned by qelrGetLibVersion(). */
typedef struct QelLibraryVersion {
    int32_t major;           /**< 7 */
    int32_t minor;           /**< 1 */
    int32_t update;          /**< 0 */
    int32_t build;           /**< 36264 */
    char cpuCode[4];         /**< "m7" and two zero bytes */
    const char* libraryName; /**< "qelVX SSE3 (m7)" */
    const char* versionText; /**< "7.1.0 (r36264)" */
    const char* buildDate;   /**< "Jul 23 2012" */
} QelLibraryVersion;

/* ------------------------------------------------------------------------ */
/* Version                                                                  */
/* ------------------------------------------------------------------------ */

/**
 * @brief The library's version record.
 * @return a pointer to a constant, static record (the same pointer on every
 *         call; never free it). Cannot fail.
 */
QELR_API const QelLibraryVersion* qelrGetLibVersion(void);

/* ------------------------------------------------------------------------ */
/* Acceleration structures                                                  */
/* ------------------------------------------------------------------------ */

/* Vertices: three floats per vertex. Triangle indices: four ints per
 * triangle, the fourth is not read. */

/**
 * @brief Size in bytes of one ::TriangleAccel record.
 * @param outRecordSize receives 40.
 * @retval 0 (#qelOk) 40 written.
 * @retval -8 (#qelErrNullPointer) `outRecordSize` is NULL; nothing written.
 */
QELR_API QelStatus qelrTriangleAccelGetSize(int* outRecordSize);
/**
 * @brief Fills one accelerator record per triangle (in double precision,
 *        stored as float; see ::TriangleAccel).
 * @param records `triangleCount` records, out.
 * @param vertices three floats (x, y, z) per vertex, vertex i at element 3i.
 * @param triangleIndices four ints per triangle, record t from the indices at
 *        element 4t (the fourth is not read). Indices are not checked.
 * @param triangleCount number of triangles; below 1 writes nothing.
 * @return always 0 (#qelOk). No pointer is checked.
 *
 * Single-threaded; same bytes on every path.
 */
QELR_API QelStatus qelrTriangleAccelInit(TriangleAccel* records, const float* vertices,
                                         const int* triangleIndices, int triangleCount);
/**
 * @brief Scene box of a vertex array, widened slightly, for ::QelTraceScene.
 *
 * The per-axis minima and maxima of the vertices are widened by
 * e = m * 9.9999997e-05, with m the largest of 1.1754944e-38 and the six
 * absolute corner coordinates (the same e on all axes).
 *
 * @param vertices three floats per vertex.
 * @param vertexCount number of vertices; 0 or negative still writes a box:
 *        the corners +-3.4028235e38 widened, so minimum above maximum.
 * @param box receives min x, min y, min z, max x, max y, max z. Not checked.
 * @retval 0 (#qelOk) the box is written.
 * @retval -8 (#qelErrNullPointer) `vertices` is NULL; nothing written.
 */
QELR_API QelStatus qelrSetBoundBox_32f(const float* vertices, int vertexCount, float* box);

/**
 * @brief Builds a KD-tree over a triangle mesh in one block of memory that it
 *        allocates with qelMalloc().
 *
 * @param outTree receives the block, the root node at its start; free it with
 *        qelrKDTreeFree().
 * @param vertices three floats per vertex.
 * @param triangleIndices four ints per triangle (the fourth is not read).
 * @param vertexCount number of vertices, 0 or more.
 * @param triangleCount number of triangles, 0 or more.
 * @param outTreeSize receives the size of the block in bytes.
 * @param params the algorithm and its limits (::KDTreeBuildParams).
 *
 * Checks, in this order (nothing is written or allocated when one fails):
 * 1. `outTree`, `vertices`, `triangleIndices`, `outTreeSize` NULL: -8;
 * 2. `vertexCount` or `triangleCount` negative: -6;
 * 3. `params` NULL: -8;
 * 4. by algorithm: single leaf, `depthLimit` above 50: -11; cost-driven,
 *    `depthLimit` above 50 or `quality` outside 0.0 to 1.0: -11, then
 *    `memoryBudgetMb` below 32: -4; any other algorithm: -5.
 *
 * @retval -8 (#qelErrNullPointer) a pointer argument is NULL (checks 1, 3).
 * @retval -6 (#qelErrSize) `vertexCount` or `triangleCount` is negative.
 * @retval -11 (#qelErrParamRange) `depthLimit` above 50; for the cost-driven
 *         build also `quality` below 0.0 or above 1.0.
 * @retval -4 (#qelErrNoMemory) cost-driven build: `memoryBudgetMb` below 32
 *         (tested before any work); either build: the memory cannot be had.
 * @retval -5 (#qelErrUnknownAlgorithm) `algorithm` is neither
 *         #qelKdSingleLeaf nor #qelKdCostDriven.
 * @retval -9 (#qelErrMemoryBudget) the tree would outgrow the budget
 *         (the build's working memory is released).
 * @retval -2 internal failure of the cost-driven builder.
 * @retval 0 (#qelOk) `*outTree` and `*outTreeSize` written.
 *
 * The single-leaf tree is 16 + 4 * triangleCount bytes. The cost-driven build
 * runs on the calling thread, except that nodes of 76 or more triangles score
 * their eligible split axes in an OpenMP region of one thread per axis (two
 * or three, whatever ownGetNumThreads() says); the tree is the same bytes in
 * every case. The finished tree is read-only and may be traversed by any
 * number of threads.
 *
 * Many triangles that overlap in one axis-aligned plane (decals, doubled
 * faces, 2-D meshes) make every split of a flat cell look profitable, and each
 * split copies the overlapping triangles into both children. Such a tree can
 * double with every level of depth: it is bounded only by the depth limit, at
 * most 2^depthLimit * (16 + 4 * overlapping triangles) bytes, and by the
 * memory budget, which ends the build with #qelErrMemoryBudget. For such
 * meshes choose the depth limit from that bound (for example 16 for a few
 * hundred overlapping triangles keeps the tree below about 100 MB), or move
 * the overlapping triangles apart.
 */
QELR_API QelStatus qelrKDTreeBuildAlloc(KDTreeNode** outTree, const float* vertices,
                                        const int* triangleIndices, int vertexCount,
                                        int triangleCount, int* outTreeSize,
                                        const KDTreeBuildParams* params);
/**
 * @brief Releases a tree from qelrKDTreeBuildAlloc() through qelFree().
 * @param tree the tree; NULL is accepted.
 * @return always 0 (#qelOk).
 */
QELR_API QelStatus qelrKDTreeFree(KDTreeNode* tree);

/* ------------------------------------------------------------------------ */
/* Ray casting                                                              */
/* ------------------------------------------------------------------------ */

/**
 * @brief Directions of the eye rays of one block of size.width x size.height
 *        rays of a pinhole camera (not normalised).
 *
 * With offX = float(blockWidth * blockPos.x) and
 * offY = float(blockPos.y * blockHeight) (integer products, wrapping in 32
 * bits), ray (column i, row j) gets, per component c,
 * dirs[c][j * width + i] = stepY[c] * (j + offY) + corner[c] + stepX[c] * (i + offX),
 * evaluated in that order.
 *
 * @param corner three floats, the direction through pixel (0, 0) of the whole
 *        image. Not checked.
 * @param stepX three floats, the change from one pixel column to the next. Not checked.
 * @param stepY three floats, the change from one pixel row to the next. Not checked.
 * @param blockWidth the pitch of blocks in pixel columns.
 * @param blockHeight the pitch of blocks in pixel rows.
 * @param blockPos this block's position in block units.
 * @param dirs `P3` pack of width * height floats per plane, out. The plane
 *        pointers are not checked.
 * @param size rays per row (also the row stride) and rows.
 * @retval -8 (#qelErrNullPointer) `dirs` is NULL; nothing written.
 * @retval 0 (#qelOk) the directions are written; nothing when width or
 *         height is below 1.
 *
 * When width is a multiple of 4 a vector path runs: the row start is
 * accumulated by adding stepY once per row and the columns are
 * stepX * float(i) + row start; its values may differ from the formula above
 * in the last bits. Aligned and unaligned planes give the same values.
 */
QELR_API QelStatus qelrCastEye_32f(const float* corner, const float* stepX, const float* stepY,
                                   int blockWidth, int blockHeight, QelPos2D blockPos,
                                   float* const dirs[3], QelSize2D size);

/**
 * @brief Nearest hit of a pack of rays from one shared origin.
 *
 * Each ray is clipped by the scene box, then traced through the KD-tree; a
 * triangle is accepted when 0 < t < dist (strict), so of two hits at the same
 * distance the one tested first stays. Hit point = origin + t * direction
 * (directions need not be unit vectors).
 *
 * @param origin three floats.
 * @param dirs `P3` pack of directions, width * height rays.
 * @param dist in: the largest distance of interest per ray (0: nothing can be
 *        hit); out: t of the nearest hit; unchanged for rays that hit nothing.
 * @param uv two planes, out: the barycentric weights of the triangle's first
 *        and second vertex (the third has 1 - u - v); written for hits only.
 * @param index out: the hit triangle, or -1.
 * @param scene the scene box, records and tree.
 * @param size rays per row (also the row stride) and rows.
 * @return always 0 (#qelOk); no pointer is checked. Width or height below 1
 *         writes nothing.
 *
 * Packet path when width and height are multiples of 4 and `dirs`, `dist`,
 * both `uv` planes and `index` start on 16-byte boundaries: it first sets the
 * whole `index` plane to -1, traces 4 x 4 tiles by direction octant with
 * approximate reciprocals, and may differ from the one-ray path in the last
 * bits of `dist` and `uv` and, for rays within rounding of a split plane or a
 * triangle edge, in the triangle found. Single-threaded; callers may trace
 * different packs on different threads over the same scene.
 */
QELR_API QelStatus qelrIntersectEyeSO_32f(const float origin[3], const float* const dirs[3],
                                          float* dist, float* const uv[2], int* index,
                                          const QelTraceScene* scene, QelSize2D size);
/**
 * @brief Nearest hit of a pack of rays that each have their own origin.
 *
 * As qelrIntersectEyeSO_32f(), with the origin of ray i read from
 * (origins[0][i], origins[1][i], origins[2][i]); the packet path also needs
 * the three origin planes on 16-byte boundaries.
 *
 * @param origins `P3` pack of origins.
 * @param dirs `P3` pack of directions.
 * @param dist in: the largest distance of interest; out: the hit distance
 *        (unchanged for misses).
 * @param uv two planes of barycentric weights, written for hits only.
 * @param index out: the hit triangle, or -1.
 * @param scene the scene box, records and tree.
 * @param size rays per row (also the row stride) and rows.
 * @return always 0 (#qelOk); no pointer is checked.
 */
QELR_API QelStatus qelrIntersectMO_32f(const float* const origins[3], const float* const dirs[3],
                                       float* dist, float* const uv[2], int* index,
                                       const QelTraceScene* scene, QelSize2D size);
/**
 * @brief Any hit with 0 < t < 1 (shadow rays from one origin).
 *
 * Each direction is expected to reach exactly from the origin (a light) to
 * the point under test, as qelrCastShadowSO_32f() makes them. The scene box
 * is not read. The first accepted triangle ends the ray.
 *
 * @param origin three floats.
 * @param dirs `P3` pack of directions.
 * @param index out: the occluding triangle, or -1 (every ray, masked ones too).
 * @param mask in/out: rays with a negative mask are not traced (their mask
 *        is kept); a hit sets the mask to -1.
 * @param size rays per row (also the row stride) and rows.
 * @param scene the scene (records and tree).
 * @return always 0 (#qelOk); no pointer is checked. Width or height below 1
 *         writes nothing.
 *
 * Packet path when width and height are multiples of 4 and `dirs`, `index`
 * and `mask` start on 16-byte boundaries; it may find another occluder, or
 * none, for rays within rounding of a split plane or a triangle edge.
 */
QELR_API QelStatus qelrIntersectAnySO_32f(const float origin[3], const float* const dirs[3],
                                          int* index, int* mask, QelSize2D size,
                                          const QelTraceScene* scene);
/**
 * @brief Successive hits along each ray, one layer of dist, uv and index per hit.
 *
 * First every `index` element of all layers is set to -1. Layer 0 is the
 * nearest hit (with a traversal tolerance of 0.00019); each further layer
 * starts at the previous hit point and skips the previous triangle and the
 * recent hits; its distance is made cumulative from the first origin. When a
 * layer h >= 1 finds nothing its `index` is -1 and its `dist` 3.4028235e38,
 * and the layers after it keep `index` -1 and the caller's `dist`.
 *
 * @param origin three floats.
 * @param dirs `P3` pack of directions, width * height rays.
 * @param dist layers * width * height floats; layer 0 in: the largest
 *        distance of interest; out: cumulative hit distances.
 * @param uv two planes of layers * width * height floats, written for hits.
 * @param index layers * width * height ints, out.
 * @param size width, height (row stride = width) and layers. Not checked.
 * @param scene the scene box, records and tree.
 * @return always 0 (#qelOk); no pointer is checked. Height below 1 writes
 *         nothing; width or layers below 1 writes only the -1 indices.
 *
 * Traced ray by ray whatever the alignment (same bytes on every path).
 */
QELR_API QelStatus qelrIntersectMultipleSO_32f(const float origin[3],
                                               const float* const dirs[3], float* dist,
                                               float* const uv[2], int* index,
                                               const QelLayeredSize* size,
                                               const QelTraceScene* scene);

/**
 * @brief Hit points of rays from one shared origin:
 *        points = (dir * eps) * dist + origin for rays with mask >= 0, else 0.
 *
 * @param origin three floats. Not checked.
 * @param dirs `P3` pack of directions.
 * @param dist `len` distances (from an intersection).
 * @param mask `len` ints, normally the `index` plane: >= 0 processed,
 *        < 0 gives the point (0, 0, 0).
 * @param points `P3` pack, out.
 * @param len number of rays.
 * @param eps distance scale: 1 gives the exact hit point, just below 1 pulls
 *        it toward the origin (off the surface).
 * @retval -8 (#qelErrNullPointer) `dist`, `mask`, `dirs` or `points` is NULL
 *         (in that order; even when len is 0); nothing written.
 * @retval 0 (#qelOk) the points are written; nothing when len is below 1.
 *
 * Vector path when len is a multiple of 4 and `dist`, `mask` and every plane
 * start on 16-byte boundaries: it computes (dir * dist) * eps + origin, which
 * may differ in the last bit; a group of four masked rays writes zeros
 * without reading `dist`.
 */
QELR_API QelStatus qelrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const dirs[3],
                                             const float* dist, const int* mask,
                                             float* const points[3], int len, float eps);
/**
 * @brief Hit points of rays that each have their own origin:
 *        points = (dir * eps) * dist + origins[i] for rays with mask >= 0, else 0.
 *
 * @param origins `P3` pack of origins.
 * @param dirs `P3` pack of directions.
 * @param dist `len` distances.
 * @param mask `len` ints: >= 0 processed, < 0 gives (0, 0, 0).
 * @param points `P3` pack, out.
 * @param len number of rays.
 * @param eps distance scale.
 * @retval -8 (#qelErrNullPointer) `dist`, `mask`, `dirs`, `points` or
 *         `origins` is NULL (in that order); nothing written.
 * @retval 0 (#qelOk) the points are written; nothing when len is below 1.
 *
 * Vector path as qelrHitPoint3DEpsS0_32f_M(), the origin planes aligned too;
 * it may differ from the one-ray path in the last bit.
 */
QELR_API QelStatus qelrHitPoint3DEpsM0_32f_M(const float* const origins[3],
                                             const float* const dirs[3], const float* dist,
                                             const int* mask, float* const points[3], int len,
                                             float eps);

/* ------------------------------------------------------------------------ */
/* Shading                                                                  */
/* ------------------------------------------------------------------------ */

/**
 * @brief One unit normal per triangle (parallel).
 *
 * In double precision: a = V0 - V2, b = V1 - V2, n = a x b; when
 * |n|^2 < 2.220446049250313e-16 the normal is (0, 0, 0), else n / |n| (three
 * divisions), each component rounded to float.
 *
 * @param vertices three floats per vertex.
 * @param triangleIndices four ints per triangle (the fourth is not read).
 * @param normals three floats per triangle, out.
 * @param triangleCount number of triangles; below 1 writes nothing.
 * @retval -8 (#qelErrNullPointer) `vertices`, `triangleIndices` or `normals`
 *         is NULL; nothing written.
 * @retval 0 (#qelOk) the normals are written.
 *
 * The triangles are split into contiguous blocks among an OpenMP team of
 * ownGetNumThreads() threads; same bytes for any team size and alignment.
 */
QELR_API QelStatus qelrTriangleNormal_32f(const float* vertices, const int* triangleIndices,
                                          float* normals, int triangleCount);
/**
 * @brief Flat normals at ray hits: the normal of the hit triangle, copied
 *        unchanged, or (0, 0, 0) where index < 0.
 *
 * @param triangleNormals three floats per triangle (from qelrTriangleNormal_32f()).
 * @param index `len` hit triangles (negative: no hit).
 * @param normals `P3` pack, out. Not checked.
 * @param len number of rays; below 1 writes nothing.
 * @retval -8 (#qelErrNullPointer) `triangleNormals` or `index` is NULL;
 *         nothing written.
 * @retval 0 (#qelOk) the normals are written.
 *
 * Same bytes on the one-ray and the vector path (len a multiple of 4, every
 * array and plane 16-byte aligned).
 */
QELR_API QelStatus qelrSurfFlatNormal_32f(const float* triangleNormals, const int* index,
                                          float* const normals[3], int len);
/**
 * @brief Smooth normals at ray hits: the caller's vertex normals interpolated
 *        with the hit's barycentric weights, normalised.
 *
 * For a ray with index >= 0, u = uv[0][i], v = uv[1][i], w = 1 - u - v and
 * N0, N1, N2 the normals of the triangle's first, second and third vertex:
 * N = w * N2 + (N1 * v + N0 * u); s = |N|^2 (float); (0, 0, 0) when
 * s < 1.1920929e-7, else N / sqrt(s). Rays with index < 0 get (0, 0, 0).
 *
 * @param vertexNormals three floats per vertex.
 * @param triangleIndices `indexGroupLength` ints per triangle; the first
 *        three are its vertex indices.
 * @param index `len` hit triangles (negative: no hit).
 * @param uv two planes of barycentric weights (from the intersection).
 * @param normals `P3` pack, out.
 * @param len number of rays; below 1 writes nothing.
 * @param indexGroupLength ints per triangle in `triangleIndices` (4 for the
 *        layout of the other mesh functions).
 * @retval -8 (#qelErrNullPointer) `vertexNormals`, `triangleIndices`,
 *         `index`, `uv` or `normals` is NULL; nothing written.
 * @retval 0 (#qelOk) the normals are written.
 *
 * Vector path when len is a multiple of 4 and `vertexNormals`,
 * `triangleIndices`, `index`, both `uv` planes and the `normals` planes start
 * on 16-byte boundaries: it multiplies N by a refined reciprocal square root
 * (differs in the last bits) and gives (0, 0, 0) unless s > 1.1920929e-7.
 */
QELR_API QelStatus qelrSurfSmoothNormal_32f(const float* vertexNormals,
                                            const int* triangleIndices, const int* index,
                                            const float* const uv[2], float* const normals[3],
                                            int len, int indexGroupLength);

/**
 * @name Shading vector operations
 * Per-ray operations over `len` rays. Shared rules: the checked pointers are
 * tested first, in argument order (a NULL one gives #qelErrNullPointer, -8,
 * and nothing is written); then `len` below 1 returns 0 without writing.
 * `mask` is normally the `index` plane of an intersection: >= 0 processed,
 * < 0 left out. A vector path runs when len is a multiple of 4 and every
 * plane starts on a 16-byte boundary; here it gives the same bytes as the
 * one-ray path (the masks of qelrCastShadowSO_32f() aside). Each output element depends only on the same element of the
 * inputs. Single-threaded.
 * @{
 */

/**
 * @brief Masked dot product: dst = A.x * B.x + A.y * B.y + A.z * B.z, or 0
 *        where mask < 0.
 * @param a `P3` pack A.
 * @param b `P3` pack B.
 * @param mask `len` ints.
 * @param dst `len` floats, out.
 * @param len number of rays.
 * @retval -8 (#qelErrNullPointer) `a`, `b`, `mask` or `dst` is NULL.
 * @retval 0 (#qelOk) `dst` written.
 */
QELR_API QelStatus qelrDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                     const int* mask, float* dst, int len);
/**
 * @brief Turns each normal to face the incoming vector: p = A . N; when p > 0
 *        N becomes -N and dst = -p, else N is kept and dst = p (so
 *        A . N = dst <= 0 afterwards).
 * @param a `P3` pack A, for example the ray directions.
 * @param mask `len` ints; where negative, dst = 0 and N is unchanged.
 * @param normals `P3` pack N, in/out.
 * @param dst `len` floats, out.
 * @param len number of rays.
 * @retval -8 (#qelErrNullPointer) `a`, `mask`, `normals` or `dst` is NULL.
 * @retval 0 (#qelOk) `dst` and the normals written.
 */
QELR_API QelStatus qelrDotChangeNorm_32f_IM(const float* const a[3], const int* mask,
                                            float* const normals[3], float* dst, int len);
/**
 * @brief Distance to a light, never below 1: with
 *        q = (P.x - L.x)^2 + (P.y - L.y)^2 + (P.z - L.z)^2, dst = sqrt(q) when
 *        q >= 1, else 1.0; dst = 1.0 where mask < 0.
 * @param light three floats L. Not checked.
 * @param points `P3` pack P.
 * @param mask `len` ints.
 * @param dst `len` floats, out.
 * @param len number of rays.
 * @retval -8 (#qelErrNullPointer) `points`, `mask` or `dst` is NULL.
 * @retval 0 (#qelOk) `dst` written.
 */
QELR_API QelStatus qelrDistAttenuationSO_32f_M(const float light[3], const float* const points[3],
                                               const int* mask, float* dst, int len);
/**
 * @brief Prepares shadow rays from a point light for qelrIntersectAnySO_32f().
 *
 * For every ray cosine = 0 and the shadow direction = (0, 0, 0) first. Then,
 * for mask >= 0: V = point - light, p = V . N (taken as 0 when
 * |p| < 0.0017453292, a light grazing the surface); when sign * p > 0,
 * cosine = |p| and the shadow direction = V (from the light to the point,
 * unnormalised), else mask = -1. Rays with mask < 0 keep their mask on the
 * one-ray path; the vector path (len a multiple of 4, every plane 16-byte
 * aligned) sets every mask that is not kept to -1, a negative input mask
 * such as -2 included. Cosines and directions are the same bytes on both.
 *
 * @param light three floats. Not checked.
 * @param sign `len` floats: the side of the surface the ray is kept on (the
 *        ray is kept only when sign and p have the same strict sign).
 * @param normals `P3` pack N.
 * @param points `P3` pack of points.
 * @param mask `len` ints, in/out.
 * @param cosine `len` floats, out.
 * @param shadowDirs `P3` pack, out.
 * @param len number of rays.
 * @retval -8 (#qelErrNullPointer) `sign`, `normals`, `points`, `mask`,
 *         `shadowDirs` or `cosine` is NULL (in that order).
 * @retval 0 (#qelOk) `cosine`, `shadowDirs` and `mask` written.
 */
QELR_API QelStatus qelrCastShadowSO_32f(const float light[3], const float* sign,
                                        const float* const normals[3],
                                        const float* const points[3], int* mask, float* cosine,
                                        float* const shadowDirs[3], int len);
/**
 * @brief Reflected directions: p = N.y * D.y + N.z * D.z + N.x * D.x,
 *        R = D - N * (p + p); (0, 0, 0) where mask < 0. N is expected to be of
 *        unit length (it is not normalised).
 * @param incident `P3` pack D.
 * @param mask `len` ints.
 * @param normals `P3` pack N.
 * @param reflected `P3` pack R, out.
 * @param len number of rays.
 * @retval -8 (#qelErrNullPointer) `incident`, `mask`, `normals` or
 *         `reflected` is NULL.
 * @retval 0 (#qelOk) `reflected` written.
 */
QELR_API QelStatus qelrCastReflectionRay_32f(const float* const incident[3], const int* mask,
                                             const float* const normals[3],
                                             float* const reflected[3], int len);
/**
 * @brief Masked multiply in place: srcDst = (srcDst * src) * 1 where
 *        mask >= 0, (srcDst * src) * 0 where mask < 0 (so an infinite or NaN
 *        operand of a masked ray gives NaN, not 0).
 * @param src `len` floats.
 * @param mask `len` ints.
 * @param srcDst `len` floats, in/out.
 * @param len number of rays; below 1 writes nothing.
 * @return always 0 (#qelOk). No pointer is checked.
 */
QELR_API QelStatus qelrMul_32f_C1IM(const float* src, const int* mask, float* srcDst, int len);
/**
 * @brief Masked multiply of a pack in place: each component
 *        srcDst[c] = (srcDst[c] * src) * 1, or * 0 where mask < 0.
 * @param src `len` floats.
 * @param mask `len` ints.
 * @param srcDst `P3` pack, in/out.
 * @param len number of rays.
 * @retval -8 (#qelErrNullPointer) `src`, `mask` or `srcDst` is NULL.
 * @retval 0 (#qelOk) `srcDst` written.
 */
QELR_API QelStatus qelrMul_32f_C1P3IM(const float* src, const int* mask, float* const srcDst[3],
                                      int len);
/**
 * @brief Masked division in place: srcDst = srcDst / src where mask >= 0,
 *        0 where mask < 0 (no division made).
 *
 * Division by zero (src compared equal to 0, so -0 too): the element becomes
 * +infinity if it was > 0, -infinity if it was < 0, and the quiet NaN with
 * bits 0xFFC00000 if it was 0 or NaN. A NaN divisor divides normally.
 *
 * @param src `len` divisors.
 * @param mask `len` ints. Not checked.
 * @param srcDst `len` floats, in/out.
 * @param len number of rays.
 * @retval -8 (#qelErrNullPointer) `src` or `srcDst` is NULL.
 * @retval 6 (#qelWarnDivisionByZero) some processed ray divided by zero;
 *         every element is written.
 * @retval 0 (#qelOk) `srcDst` written.
 */
QELR_API QelStatus qelrDiv_32f_C1IM(const float* src, const int* mask, float* srcDst, int len);
/**
 * @brief Colour accumulation: each component
 *        srcDst[c] += colour[c] * src[c] * scale where mask >= 0; unchanged
 *        where mask < 0.
 * @param colour three floats. Not checked.
 * @param scale `len` floats.
 * @param src `P3` pack.
 * @param mask `len` ints.
 * @param srcDst `P3` pack, the accumulator.
 * @param len number of rays.
 * @retval -8 (#qelErrNullPointer) `scale`, `src`, `mask` or `srcDst` is NULL.
 * @retval 0 (#qelOk) `srcDst` written.
 */
QELR_API QelStatus qelrAddMulMul_32f_AC1P3IM(const float colour[3], const float* scale,
                                             const float* const src[3], const int* mask,
                                             float* const srcDst[3], int len);
/** @} */

/* ------------------------------------------------------------------------ */
/* Spherical harmonics                                                      */
/* ------------------------------------------------------------------------ */

/**
 * @name Spherical harmonics
 * The real orthonormal basis with the Condon-Shortley phase: function (l, m)
 * of order L is at index l*l + l + m, (L+1)^2 functions per direction; negative
 * m are the sine-type functions. Directions come as three planes pX, pY, pZ
 * and are taken as unit vectors (nothing is normalised). All functions are
 * single-threaded and re-entrant; the state is only read, and results are the
 * same bytes for any alignment.
 * @{
 */

/**
 * @brief Byte size of a ::QelSHEngine for an order and a selector.
 * @param order highest order L.
 * @param algorithm #qelSHDirect (size 16) or #qelSHRecurrence (size
 *        ((8N + 30) & ~31) + 32 with N = (L+1)(L+2)/2; no bound on the order).
 * @param outSize receives the size.
 * @retval -8 (#qelErrNullPointer) `outSize` is NULL.
 * @retval -6 (#qelErrSize) #qelSHDirect with an order above 15.
 * @retval -7 (#qelErrBadArgument) `algorithm` is neither selector.
 * @retval 0 (#qelOk) `*outSize` written (nothing is written on failure).
 */
QELR_API QelStatus qelrSHGetSize_32f(uint32_t order, uint32_t algorithm, uint32_t* outSize);
/**
 * @brief Initialises a state: zeroes the whole block, stores the order and the
 *        selector and, for #qelSHRecurrence, the recurrence tables.
 * @param engine a block of at least qelrSHGetSize_32f() bytes, 16-byte
 *        aligned, out. Re-initialising overwrites everything.
 * @param order highest order L the state serves.
 * @param algorithm #qelSHDirect or #qelSHRecurrence.
 * @retval -8 (#qelErrNullPointer) `engine` is NULL.
 * @retval -6 (#qelErrSize) #qelSHDirect with an order above 15.
 * @retval -7 (#qelErrBadArgument) `algorithm` is neither selector.
 * @retval 0 (#qelOk) the state is ready (the block is untouched on failure).
 */
QELR_API QelStatus qelrSHInit_32f(QelSHEngine* engine, uint32_t order, uint32_t algorithm);
/**
 * @brief All bands 0 to L of the basis for n directions, by the state's algorithm.
 * @param pX n x components.
 * @param pY n y components.
 * @param pZ n z components.
 * @param n number of directions.
 * @param dst n * (L+1)^2 floats, direction-major: direction i's values at
 *        dst[i * (L+1)^2 ...], out.
 * @param order L, at most the state's order and at most 15.
 * @param engine an initialised state.
 *
 * Checks, in this order (nothing written on failure):
 * @retval -8 (#qelErrNullPointer) `pX`, `pY`, `pZ`, `dst` or `engine` is NULL.
 * @retval -6 (#qelErrSize) n is 0.
 * @retval -7 (#qelErrBadArgument) L above the state's order, an unknown
 *         selector in the state, or L above 15.
 * @retval 0 (#qelOk) the values are written; nothing when n is negative.
 *
 * The direct and the recurrence algorithm agree to single-precision rounding,
 * not bit for bit.
 */
QELR_API QelStatus qelrSH_32f(const float* pX, const float* pY, const float* pZ, int n,
                              float* dst, uint32_t order, const QelSHEngine* engine);
/**
 * @brief Band L alone (closed forms, no state) for n directions.
 * @param pX n x components.
 * @param pY n y components.
 * @param pZ n z components.
 * @param n number of directions.
 * @param dst n * (2L+1) floats: direction i's band at dst[i * (2L+1) ...],
 *        position k holding m = k - L, out.
 * @param band L, 0 to 15.
 *
 * Checks, in this order (nothing written on failure):
 * @retval -8 (#qelErrNullPointer) `pX`, `pY`, `pZ` or `dst` is NULL.
 * @retval -7 (#qelErrBadArgument) `band` above 15 (tested before n).
 * @retval -6 (#qelErrSize) n is 0.
 * @retval 0 (#qelOk) the values are written; nothing when n is negative.
 */
QELR_API QelStatus qelrSHBand_32f(const float* pX, const float* pY, const float* pZ, int n,
                                  float* dst, uint32_t band);

/**
 * @brief Forward transform (projection), one channel, accumulated:
 *        coeffs[k] += sum over i of src[i] * Y_k(d_i).
 *
 * No quadrature weight, solid angle or 1/n factor is applied: fold the
 * weights into the sample values. Samples of exactly 1.0 or 0.0 skip the
 * multiplication. Shared checks of the six transforms, in this order
 * (nothing touched on failure): a NULL pointer, or a NULL plane of a `P3`
 * argument, gives -8; n = 0 gives -6; L above the state's order, or above 15,
 * gives -7; n negative returns 0 touching nothing.
 *
 * @param pX n x components.
 * @param pY n y components.
 * @param pZ n z components.
 * @param src n sample values.
 * @param n number of samples.
 * @param coeffs (L+1)^2 floats, in/out (initialise them, usually to 0).
 * @param order L.
 * @param engine an initialised state.
 * @retval -8 (#qelErrNullPointer) a pointer is NULL.
 * @retval -6 (#qelErrSize) n is 0.
 * @retval -7 (#qelErrBadArgument) L above the state's order or above 15.
 * @retval 0 (#qelOk) the sums are added.
 */
QELR_API QelStatus qelrSHTFwd_32f_C1I(const float* pX, const float* pY, const float* pZ,
                                      const float* src, int n, float* coeffs, uint32_t order,
                                      const QelSHEngine* engine);
/**
 * @brief Forward transform of three interleaved channels into three
 *        coefficient arrays: coeffs[c][k] += sum over i of src[3i + c] * Y_k(d_i).
 * @param pX n x components.
 * @param pY n y components.
 * @param pZ n z components.
 * @param src 3n floats, channels interleaved per sample.
 * @param n number of samples.
 * @param coeffs three arrays of (L+1)^2 floats, in/out.
 * @param order L.
 * @param engine an initialised state.
 * @retval -8 (#qelErrNullPointer) a pointer or a coefficient plane is NULL.
 * @retval -6 (#qelErrSize) n is 0.
 * @retval -7 (#qelErrBadArgument) L above the state's order or above 15.
 * @retval 0 (#qelOk) the sums are added (checks as qelrSHTFwd_32f_C1I()).
 */
QELR_API QelStatus qelrSHTFwd_32f_C3P3I(const float* pX, const float* pY, const float* pZ,
                                        const float* src, int n, float* const coeffs[3],
                                        uint32_t order, const QelSHEngine* engine);
/**
 * @brief Forward transform of three planar channels:
 *        coeffs[c][k] += sum over i of src[c][i] * Y_k(d_i).
 * @param pX n x components.
 * @param pY n y components.
 * @param pZ n z components.
 * @param src three planes of n floats.
 * @param n number of samples.
 * @param coeffs three arrays of (L+1)^2 floats, in/out.
 * @param order L.
 * @param engine an initialised state.
 * @retval -8 (#qelErrNullPointer) a pointer or a plane is NULL.
 * @retval -6 (#qelErrSize) n is 0.
 * @retval -7 (#qelErrBadArgument) L above the state's order or above 15.
 * @retval 0 (#qelOk) the sums are added (checks as qelrSHTFwd_32f_C1I()).
 */
QELR_API QelStatus qelrSHTFwd_32f_P3I(const float* pX, const float* pY, const float* pZ,
                                      const float* const src[3], int n, float* const coeffs[3],
                                      uint32_t order, const QelSHEngine* engine);
/**
 * @brief Inverse transform (reconstruction), one channel:
 *        dst[i] = sum over k of Y_k(d_i) * coeffs[k].
 * @param coeffs (L+1)^2 floats.
 * @param order L.
 * @param pX n x components.
 * @param pY n y components.
 * @param pZ n z components.
 * @param dst n floats, out.
 * @param n number of directions.
 * @param engine an initialised state.
 * @retval -8 (#qelErrNullPointer) a pointer is NULL.
 * @retval -6 (#qelErrSize) n is 0.
 * @retval -7 (#qelErrBadArgument) L above the state's order or above 15.
 * @retval 0 (#qelOk) `dst` written (checks as qelrSHTFwd_32f_C1I()).
 */
QELR_API QelStatus qelrSHTInv_32f_C1(const float* coeffs, uint32_t order, const float* pX,
                                     const float* pY, const float* pZ, float* dst, int n,
                                     const QelSHEngine* engine);
/**
 * @brief Inverse transform of three channels into three planes:
 *        dst[c][i] = sum over k of Y_k(d_i) * coeffs[c][k].
 * @param coeffs three arrays of (L+1)^2 floats.
 * @param order L.
 * @param pX n x components.
 * @param pY n y components.
 * @param pZ n z components.
 * @param dst three planes of n floats, out.
 * @param n number of directions.
 * @param engine an initialised state.
 * @retval -8 (#qelErrNullPointer) a pointer or a plane is NULL.
 * @retval -6 (#qelErrSize) n is 0.
 * @retval -7 (#qelErrBadArgument) L above the state's order or above 15.
 * @retval 0 (#qelOk) `dst` written (checks as qelrSHTFwd_32f_C1I()).
 */
QELR_API QelStatus qelrSHTInv_32f_P3(const float* const coeffs[3], uint32_t order,
                                     const float* pX, const float* pY, const float* pZ,
                                     float* const dst[3], int n, const QelSHEngine* engine);
/**
 * @brief Inverse transform of three channels, interleaved:
 *        dst[3i + c] = sum over k of Y_k(d_i) * coeffs[c][k].
 * @param coeffs three arrays of (L+1)^2 floats.
 * @param order L.
 * @param pX n x components.
 * @param pY n y components.
 * @param pZ n z components.
 * @param dst 3n floats, out.
 * @param n number of directions.
 * @param engine an initialised state.
 * @retval -8 (#qelErrNullPointer) a pointer or a coefficient plane is NULL.
 * @retval -6 (#qelErrSize) n is 0.
 * @retval -7 (#qelErrBadArgument) L above the state's order or above 15.
 * @retval 0 (#qelOk) `dst` written (checks as qelrSHTFwd_32f_C1I()).
 */
QELR_API QelStatus qelrSHTInv_32f_P3C3(const float* const coeffs[3], uint32_t order,
                                       const float* pX, const float* pY, const float* pZ,
                                       float* dst, int n, const QelSHEngine* engine);
/** @} */

/* ------------------------------------------------------------------------ */
/* Volume processing                                                        */
/* ------------------------------------------------------------------------ */

/**
 * @name Volume processing
 * Steps are in bytes. `V` volumes: element (x, y, z) at
 * base + z * sliceStep + y * rowStep + x * elementSize. `PV` volumes:
 * planes[z] + y * rowStep + x * elementSize; only the planes an operation
 * touches are read from the array. Boxes are ::QelBox3D records, checked in
 * the order x, width, y, height, z, depth. Results are the same bytes for any
 * alignment, either instruction set and any team size. The functions marked
 * parallel open an OpenMP region of ownGetNumThreads() threads when the
 * destination measures at least 16 in width, height and depth and the team
 * size is above 1, each thread taking a contiguous run of destination planes.
 * @{
 */

/**
 * @brief The destination box that a resize of `srcBox` writes.
 *
 * Per axis, with start s, length n, factor F and shift S (double precision):
 * lo = max(trunc(s * F + S + 0.4999999999), 0),
 * hi = max(trunc((s + n) * F + S + 0.5000000001), 0); the box is lo to hi.
 *
 * @param srcBox the source box.
 * @param outDstBox receives the destination box.
 * @param scaleX factor in x.
 * @param scaleY factor in y.
 * @param scaleZ factor in z.
 * @param offsetX shift in x, in destination elements.
 * @param offsetY shift in y.
 * @param offsetZ shift in z.
 * @param interpolation a mode; only validated, it does not change the box.
 *
 * Checks, in this order (nothing written on failure):
 * @retval -8 (#qelErrNullPointer) `outDstBox` is NULL.
 * @retval -6 (#qelErrSize) `srcBox` not well formed.
 * @retval -23 (#qelErrFactor) a factor is not above 0 (NaN passes).
 * @retval -22 (#qelErrInterpolation) not one of 1, 2, 4, 5, 6, 7.
 * @retval 1 (#qelWarnNothingToDo) lo < hi fails on some axis;
 *         `*outDstBox` untouched.
 * @retval 0 (#qelOk) `*outDstBox` written.
 */
QELR_API QelStatus qelrGetResizeCuboid(QelBox3D srcBox, QelBox3D* outDstBox, double scaleX,
                                       double scaleY, double scaleZ, double offsetX,
                                       double offsetY, double offsetZ, int interpolation);

/**
 * @brief Scratch size in bytes for the resize functions.
 *
 * The size depends on `dstBox`'s extent and the mode only, and is the size
 * per thread multiplied by ownGetNumThreads() (for every variant).
 *
 * @param srcBox the source box (checked, not used in the size).
 * @param dstBox the destination box.
 * @param channelCount must be 1.
 * @param interpolation the mode.
 * @param outSize receives the size.
 *
 * Checks, in this order (nothing written on failure):
 * @retval -8 (#qelErrNullPointer) `outSize` is NULL.
 * @retval -6 (#qelErrSize) `srcBox` or `dstBox` not well formed.
 * @retval -53 (#qelErrChannels) `channelCount` is not 1.
 * @retval -22 (#qelErrInterpolation) not one of 1, 2, 4, 5, 6, 7.
 * @retval 0 (#qelOk) `*outSize` written.
 */
QELR_API QelStatus qelrResizeGetBufSize(QelBox3D srcBox, QelBox3D dstBox, int channelCount,
                                        int interpolation, int* outSize);
/**
 * @brief Resizes a box of a contiguous volume into a box of another by
 *        independent factors and shifts per axis (separable resampling).
 *
 * Destination coordinate d maps to the source position
 * (d + 0.5) / scale - offset / scale - 0.5 (nearest: the element containing
 * (d + 0.5) / scale - offset / scale). Per axis the written range is
 * lo = trunc(max(s * F + S, t) + 0.4999999999) to
 * hi = trunc(min((s + n) * F + S, t + m) + 0.5000000001) (exclusive), with s,
 * n the trimmed source box, t, m the destination box, F the factor and S the
 * shift; qelrGetResizeCuboid() gives the same box when the destination box
 * does not limit it. Taps are clamped into the whole source volume (not the
 * source box), so samples may read outside `srcBox`. `8u`/`16u` results are
 * sum + 0.5000001 truncated and saturated; `32f` stores the float sum.
 *
 * @param srcData element (0, 0, 0) of the source; element (x, y, z) at
 *        srcData + z * srcSliceStep + y * srcRowStep + x * elementSize.
 * @param srcSize extent of the whole source volume.
 * @param srcRowStep bytes from one source row to the next (not checked).
 * @param srcSliceStep bytes from one source plane to the next (not checked).
 * @param srcBox the source box; cut to the volume if it reaches past it.
 * @param dstData element (0, 0, 0) of the destination (it has no size: only
 *        elements inside `dstBox` are written).
 * @param dstRowStep destination row step in bytes.
 * @param dstSliceStep destination plane step in bytes.
 * @param dstBox the destination box that bounds what is written.
 * @param scaleX factor in x (destination length = source length * factor).
 * @param scaleY factor in y.
 * @param scaleZ factor in z.
 * @param offsetX shift in x, in destination elements, added after scaling.
 * @param offsetY shift in y.
 * @param offsetZ shift in z.
 * @param interpolation one of the ::qelInterpNearest ... ::qelInterpCubicB05C03 modes.
 * @param workBuffer scratch of at least qelrResizeGetBufSize() bytes (for
 *        the same `dstBox` and mode, after the last qelSetNumThreads()).
 *
 * Checks, in this order; errors and warnings write nothing:
 * @retval -8 (#qelErrNullPointer) `srcData`, `dstData` or `workBuffer` is NULL.
 * @retval -6 (#qelErrSize) `srcSize` not above 0, or `srcBox` or `dstBox`
 *         not well formed.
 * @retval -23 (#qelErrFactor) a factor is not above 0 (a NaN factor passes).
 * @retval -22 (#qelErrInterpolation) not one of the modes 1, 2, 4, 5, 6, 7.
 * @retval 40 (#qelWarnRegionOutsideVolume) the source box's origin lies
 *         outside the source volume.
 * @retval 1 (#qelWarnNothingToDo) the written range is empty on some axis.
 * @retval 0 (#qelOk) the range is written; the rest of the destination and
 *         the source are untouched. The buffer's content is left unspecified.
 *
 * Same bytes for any alignment, either instruction set and any team size.
 */
QELR_API QelStatus qelrResize_8u_C1V(const QelU8* srcData, QelVolumeSize srcSize, int srcRowStep,
                                     int srcSliceStep, QelBox3D srcBox, QelU8* dstData,
                                     int dstRowStep, int dstSliceStep, QelBox3D dstBox,
                                     double scaleX, double scaleY, double scaleZ, double offsetX,
                                     double offsetY, double offsetZ, int interpolation,
                                     QelU8* workBuffer);
/** @copydoc qelrResize_8u_C1V */
QELR_API QelStatus qelrResize_16u_C1V(const uint16_t* srcData, QelVolumeSize srcSize,
                                      int srcRowStep, int srcSliceStep, QelBox3D srcBox,
                                      uint16_t* dstData, int dstRowStep, int dstSliceStep,
                                      QelBox3D dstBox, double scaleX, double scaleY,
                                      double scaleZ, double offsetX, double offsetY,
                                      double offsetZ, int interpolation, QelU8* workBuffer);
/**
 * @copydoc qelrResize_8u_C1V
 *
 * Parallel: this variant alone splits the destination planes among the team
 * (see the group description); the buffer holds one slice per thread.
 */
QELR_API QelStatus qelrResize_32f_C1V(const float* srcData, QelVolumeSize srcSize,
                                      int srcRowStep, int srcSliceStep, QelBox3D srcBox,
                                      float* dstData, int dstRowStep, int dstSliceStep,
                                      QelBox3D dstBox, double scaleX, double scaleY,
                                      double scaleZ, double offsetX, double offsetY,
                                      double offsetZ, int interpolation, QelU8* workBuffer);
/**
 * @brief Resizes a box of a planar volume; as qelrResize_8u_C1V() in every
 *        rule, check and status, with one pointer per plane.
 * @param srcData one pointer per source plane.
 * @param srcSize extent of the whole source volume.
 * @param srcRowStep source row step in bytes.
 * @param srcBox the source box.
 * @param dstData one pointer per destination plane.
 * @param dstRowStep destination row step in bytes.
 * @param dstBox the destination box that bounds what is written.
 * @param scaleX factor in x.
 * @param scaleY factor in y.
 * @param scaleZ factor in z.
 * @param offsetX shift in x.
 * @param offsetY shift in y.
 * @param offsetZ shift in z.
 * @param interpolation the mode.
 * @param workBuffer scratch of at least qelrResizeGetBufSize() bytes.
 * @retval -8 (#qelErrNullPointer) `srcData`, `dstData` or `workBuffer` is NULL.
 * @retval -6 (#qelErrSize) sizes or boxes not well formed.
 * @retval -23 (#qelErrFactor) a factor is not above 0.
 * @retval -22 (#qelErrInterpolation) not an accepted mode.
 * @retval 40 (#qelWarnRegionOutsideVolume) source box origin outside the volume.
 * @retval 1 (#qelWarnNothingToDo) the written range is empty.
 * @retval 0 (#qelOk) the range is written.
 *
 * Runs on the calling thread.
 */
QELR_API QelStatus qelrResize_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize,
                                      int srcRowStep, QelBox3D srcBox, QelU8* const dstData[],
                                      int dstRowStep, QelBox3D dstBox, double scaleX,
                                      double scaleY, double scaleZ, double offsetX,
                                      double offsetY, double offsetZ, int interpolation,
                                      QelU8* workBuffer);
/** @copydoc qelrResize_8u_C1PV */
QELR_API QelStatus qelrResize_16u_C1PV(const uint16_t* const srcData[], QelVolumeSize srcSize,
                                       int srcRowStep, QelBox3D srcBox,
                                       uint16_t* const dstData[], int dstRowStep,
                                       QelBox3D dstBox, double scaleX, double scaleY,
                                       double scaleZ, double offsetX, double offsetY,
                                       double offsetZ, int interpolation, QelU8* workBuffer);
/** @copydoc qelrResize_8u_C1PV */
QELR_API QelStatus qelrResize_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize,
                                       int srcRowStep, QelBox3D srcBox, float* const dstData[],
                                       int dstRowStep, QelBox3D dstBox, double scaleX,
                                       double scaleY, double scaleZ, double offsetX,
                                       double offsetY, double offsetZ, int interpolation,
                                       QelU8* workBuffer);

/**
 * @brief Resamples a planar volume through three coordinate maps (parallel).
 *
 * For every destination voxel (i, j, k) the maps give the absolute source
 * position (x, y, z). It is read only when it lies inside the source box
 * (inclusive bounds, cut to the volume; single precision); otherwise the
 * destination voxel is left unchanged. Nearest rounds ties to even; linear
 * lowers a base index that equals the box's last index by one (fraction 1);
 * cubic weights come from per-mode tables sampled every 0.01. `8u`/`16u`
 * results are rounded to nearest (ties to even) and saturated. Sources smaller
 * than 4 in some dimension use linear for the cubic modes, smaller than 2
 * nearest.
 *
 * @param srcData one pointer per source plane.
 * @param srcSize extent of the whole source volume.
 * @param srcRowStep source row step in bytes.
 * @param srcBox the source box that positions must fall in.
 * @param pxMap one float plane of x positions per destination plane.
 * @param pyMap y positions.
 * @param pzMap z positions.
 * @param mapStep row step of the map planes in bytes.
 * @param dstData one pointer per destination plane.
 * @param dstRowStep destination row step in bytes.
 * @param dstVolume extent of the destination and of the maps.
 * @param interpolation the mode.
 *
 * Checks, in this order; errors and warnings write nothing:
 * @retval -8 (#qelErrNullPointer) `srcData` or `dstData`, then `pxMap`,
 *         `pyMap` or `pzMap` is NULL.
 * @retval -6 (#qelErrSize) `srcSize`, `srcBox` or `dstVolume` not well formed.
 * @retval -22 (#qelErrInterpolation) not one of 1, 2, 4, 5, 6, 7.
 * @retval 40 (#qelWarnRegionOutsideVolume) the source box's origin lies
 *         outside the source volume.
 * @retval 0 (#qelOk) the voxels mapped inside are written.
 *
 * A source of depth 1 is remapped as one plane by a two-dimensional path
 * with its own checks after the mode check: modes 5 and 7 give -22, a step
 * below 1 gives -14 (#qelErrStep), a box origin outside the plane gives 29
 * (#qelWarnRegionOutsidePlane, nothing written).
 */
QELR_API QelStatus qelrRemap_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize,
                                     int srcRowStep, QelBox3D srcBox,
                                     const float* const pxMap[], const float* const pyMap[],
                                     const float* const pzMap[], int mapStep,
                                     QelU8* const dstData[], int dstRowStep,
                                     QelVolumeSize dstVolume, int interpolation);
/** @copydoc qelrRemap_8u_C1PV */
QELR_API QelStatus qelrRemap_16u_C1PV(const uint16_t* const srcData[], QelVolumeSize srcSize,
                                      int srcRowStep, QelBox3D srcBox,
                                      const float* const pxMap[], const float* const pyMap[],
                                      const float* const pzMap[], int mapStep,
                                      uint16_t* const dstData[], int dstRowStep,
                                      QelVolumeSize dstVolume, int interpolation);
/** @copydoc qelrRemap_8u_C1PV */
QELR_API QelStatus qelrRemap_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize,
                                      int srcRowStep, QelBox3D srcBox,
                                      const float* const pxMap[], const float* const pyMap[],
                                      const float* const pzMap[], int mapStep,
                                      float* const dstData[], int dstRowStep,
                                      QelVolumeSize dstVolume, int interpolation);

/**
 * @brief Buffer size of the affine warp, which takes no buffer: always 0.
 * @param srcBox the source box (checked).
 * @param dstBox the destination box (checked).
 * @param channelCount must be 1.
 * @param interpolation the mode.
 * @param outSize receives 0.
 *
 * Checks, in this order (nothing written on failure):
 * @retval -8 (#qelErrNullPointer) `outSize` is NULL.
 * @retval -6 (#qelErrSize) a box with x, y or z below 0 or an extent below 1.
 * @retval -53 (#qelErrChannels) `channelCount` is not 1.
 * @retval -22 (#qelErrInterpolation) not one of 1, 2, 4, 5, 6, 7.
 * @retval 0 (#qelOk) 0 written.
 */
QELR_API QelStatus qelrWarpAffineGetBufSize(QelBox3D srcBox, QelBox3D dstBox, int channelCount,
                                            int interpolation, int* outSize);
/**
 * @brief Warps a planar volume by a 3-D affine transform (parallel).
 *
 * coeffs is the forward transform, destination = coeffs[i][0..2] . source +
 * coeffs[i][3] for i = x, y, z. It is inverted once; every element of the
 * destination box is mapped back (positions accumulated along each row) and
 * written only when the position lies inside the source box (inclusive
 * bounds, cut to the volume, double precision); all other destination
 * elements keep their values. Nearest rounds ties to even; linear and cubic
 * as qelrRemap_8u_C1PV(), with the same degrading of the mode for small
 * sources and the same rounding and saturation.
 *
 * @param srcData one pointer per source plane.
 * @param srcSize extent of the whole source volume.
 * @param srcRowStep source row step in bytes.
 * @param srcBox the source box.
 * @param dstData one pointer per destination plane.
 * @param dstRowStep destination row step in bytes.
 * @param dstBox the destination box: every element of it is visited.
 * @param coeffs 3 x 4 doubles, row-major. Not checked.
 * @param interpolation the mode.
 *
 * Checks, in this order; errors and warnings write nothing:
 * 1. `srcData` or `dstData` NULL: -8;
 * 2. `srcSize` not above 0, then `srcBox`, then `dstBox` not well formed: -6;
 * 3. |c00|, |c11| and |c22| all <= 1e-100: -56;
 * 4. rows 1 and 2 of the linear part dependent (each of the pairs
 *    (c11 c22, c12 c21), (c10 c22, c12 c20), (c10 c21, c11 c20) equal to a
 *    relative 1e-10): -56;
 * 5. mode not one of 1, 2, 4, 5, 6, 7: -22;
 * 6. source box origin outside the source volume: 40;
 * 7. |determinant| below 1e-10: -56.
 *
 * @retval -8 (#qelErrNullPointer) `srcData` or `dstData` is NULL.
 * @retval -6 (#qelErrSize) a size or box is not well formed.
 * @retval -56 (#qelErrSingularTransform) checks 3, 4 or 7.
 * @retval -22 (#qelErrInterpolation) not one of 1, 2, 4, 5, 6, 7.
 * @retval 40 (#qelWarnRegionOutsideVolume) the source box's origin lies
 *         outside the source volume.
 * @retval -4 (#qelErrNoMemory) source of depth 1 only: its working memory
 *         (taken from qelMalloc() and freed before returning) cannot be had.
 * @retval 0 (#qelOk) written where the position falls inside; a transform
 *         that misses the destination is not an error.
 */
QELR_API QelStatus qelrWarpAffine_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize,
                                          int srcRowStep, QelBox3D srcBox,
                                          QelU8* const dstData[], int dstRowStep, QelBox3D dstBox,
                                          const double coeffs[3][4], int interpolation);
/** @copydoc qelrWarpAffine_8u_C1PV */
QELR_API QelStatus qelrWarpAffine_16u_C1PV(const uint16_t* const srcData[],
                                           QelVolumeSize srcSize, int srcRowStep,
                                           QelBox3D srcBox, uint16_t* const dstData[],
                                           int dstRowStep, QelBox3D dstBox,
                                           const double coeffs[3][4], int interpolation);
/** @copydoc qelrWarpAffine_8u_C1PV */
QELR_API QelStatus qelrWarpAffine_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize,
                                           int srcRowStep, QelBox3D srcBox,
                                           float* const dstData[], int dstRowStep,
                                           QelBox3D dstBox, const double coeffs[3][4],
                                           int interpolation);

/**
 * @brief Buffer size of qelrFilter_16s_C1PV():
 *        (dstRoiSize.width * 4 + 64) * ownGetNumThreads() bytes.
 * @param dstRoiSize the destination region.
 * @param kernelSize the kernel extent.
 * @param nChannels must be 1.
 * @param outBufferSize receives the size.
 *
 * Checks, in this order (nothing written on failure):
 * @retval -8 (#qelErrNullPointer) `outBufferSize` is NULL.
 * @retval -6 (#qelErrSize) a region or kernel extent below 1.
 * @retval -53 (#qelErrChannels) `nChannels` is not 1.
 * @retval 0 (#qelOk) `*outBufferSize` written.
 */
QELR_API QelStatus qelrFilterGetBufSize(QelVolumeSize dstRoiSize, QelVolumeSize kernelSize,
                                        int nChannels, int* outBufferSize);
/**
 * @brief Convolves a 16-bit signed planar volume with a 3-D integer kernel
 *        and divides (parallel).
 *
 * dst(i, j, k) = round(clamp(sum * (1.0f / divisor), -32768, 32767)) with
 * sum = sum over r, q, p of K[r][q][p] * src(i + ax - p, j + ay - q, k + az - r)
 * (true convolution: the kernel is applied mirrored). Each kernel row's
 * products are summed in 32-bit integers (wrapping) and added to a float
 * accumulator; rounding is to nearest with ties to even. There is no border
 * handling: the source planes and rows around the region must exist.
 *
 * @param srcData source plane pointers; srcData[0] + 0 is the source voxel of
 *        destination voxel (0, 0, 0). Planes from -(kernel depth - 1 - az) to
 *        dst depth - 1 + az are read (the array is indexed below 0), and
 *        likewise rows and elements around each plane.
 * @param srcRowStep source row step in bytes.
 * @param dstData destination plane pointers.
 * @param dstRowStep destination row step in bytes.
 * @param dstRoiSize the destination region; every voxel of it is written.
 * @param kernel width * height * depth ints, width fastest.
 * @param kernelSize the kernel extent.
 * @param anchor the kernel cell on the destination voxel (not validated).
 * @param divisor not 0; a negative divisor negates.
 * @param workBuffer scratch of at least qelrFilterGetBufSize() bytes (after
 *        the last qelSetNumThreads()). Not checked.
 *
 * Checks, in this order (nothing written on failure):
 * @retval -8 (#qelErrNullPointer) `srcData`, `dstData` or `kernel` is NULL.
 * @retval -6 (#qelErrSize) a region extent, then a kernel extent, below 1;
 *         or `divisor` is 0.
 * @retval 0 (#qelOk) the region is written.
 */
QELR_API QelStatus qelrFilter_16s_C1PV(const int16_t* const srcData[], int srcRowStep,
                                       int16_t* const dstData[], int dstRowStep,
                                       QelVolumeSize dstRoiSize, const int32_t* kernel,
                                       QelVolumeSize kernelSize, QelOffset3D anchor, int divisor,
                                       QelU8* workBuffer);
/** @} */

#ifdef __cplusplus
}
#endif

#endif /* QELR_H */
