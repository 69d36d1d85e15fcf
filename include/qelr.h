/*
 * qelr: numerical primitives for ray tracing triangle meshes, shading,
 * real spherical harmonics and 3-D volume processing.
 *
 * Every function works on caller-owned memory and returns a QelStatus
 * (except qelrGetLibVersion): 0 success, negative an error (no output is
 * written), positive a warning. Arguments are checked first, in a fixed order,
 * and the first failing check decides the status.
 *
 * Conventions of the names: `_32f`, `_16u`, `_16s`, `_8u` element types;
 * `P3` three float planes passed as an array of three pointers; `C1` one
 * plane; `C3` three interleaved channels; `AC1` a per-element scalar
 * accumulated into the destination; `I` in place; `M` masked by an index
 * plane (>= 0 processed, < 0 left out); `SO`/`MO` and `S0`/`M0` one shared
 * origin or one origin per ray; `V` contiguous volume, `PV` planar volume
 * (one pointer per plane).
 *
 * The header compiles as C99 and as C++.
 */
#ifndef QELR_H
#define QELR_H

#include <stdint.h>

#include "qelcore.h"

#if defined(QELR_BUILDING)
#define QELR_API __attribute__((visibility("default")))
#else
#define QELR_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Status values                                                            */
/* ------------------------------------------------------------------------ */

enum {
    qelOk = 0,
    qelWarnNothingToDo = 1,          /* the destination range is empty; nothing written */
    qelWarnDivisionByZero = 6,       /* a division by zero was resolved by the rule */
    qelWarnRegionOutsidePlane = 29,  /* single-plane remap: region origin outside the plane */
    qelWarnRegionOutsideVolume = 40, /* source box origin outside the volume; nothing written */
    /* -2: internal failure of the cost-driven KD-tree builder (no name) */
    qelErrNoMemory = -4,
    qelErrUnknownAlgorithm = -5,
    qelErrSize = -6,
    qelErrBadArgument = -7,
    qelErrNullPointer = -8,
    qelErrMemoryBudget = -9,
    qelErrParamRange = -11,
    qelErrStep = -14,
    qelErrInterpolation = -22,
    qelErrFactor = -23,
    qelErrChannels = -53,
    qelErrSingularTransform = -56
};

/* Interpolation modes of the volume functions. 3 is not a mode. */
enum {
    qelInterpNearest = 1,
    qelInterpLinear = 2,
    qelInterpCubic = 4,            /* four-point Lagrange cubic (interpolating) */
    qelInterpCubicBSpline = 5,     /* cubic B = 1, C = 0 (smoothing) */
    qelInterpCubicCatmullRom = 6,  /* cubic B = 0, C = 0.5 */
    qelInterpCubicB05C03 = 7       /* cubic B = 0.5, C = 0.3 */
};

/* Spherical-harmonic state algorithms. */
enum { qelSHDirect = 0, qelSHRecurrence = 1 };

/* KD-tree build algorithms. */
#define qelKdSingleLeaf 0x499D3DC2u
#define qelKdCostDriven 0x2D07705Bu

/* ------------------------------------------------------------------------ */
/* Records                                                                  */
/* ------------------------------------------------------------------------ */

typedef uint8_t QelU8;

typedef struct QelPos2D {
    int32_t x;
    int32_t y;
} QelPos2D;

typedef struct QelSize2D {
    int32_t width;
    int32_t height;
} QelSize2D;

typedef struct QelLayeredSize {
    int32_t width;
    int32_t height;
    int32_t layers;
} QelLayeredSize;

typedef struct QelVolumeSize {
    int32_t width;
    int32_t height;
    int32_t depth;
} QelVolumeSize;

typedef struct QelBox3D {
    int32_t x;
    int32_t y;
    int32_t z;
    int32_t width;
    int32_t height;
    int32_t depth;
} QelBox3D;

typedef struct QelOffset3D {
    int32_t x;
    int32_t y;
    int32_t z;
} QelOffset3D;

/* Per-triangle accelerator record (40 bytes). `axes`: bits 0-1 axis v,
 * bits 2-3 axis u, bits 4-5 the dominant normal axis k, bit 31 set when the
 * normal has no component on u and v; 0 marks a degenerate triangle. The
 * reference point is the triangle's third vertex. */
typedef struct TriangleAccel {
    uint32_t axes;
    float nu; /* normal on u divided by the normal on k */
    float pk; /* reference vertex on k */
    float nv; /* normal on v divided by the normal on k */
    float pu; /* reference vertex on u */
    float pv; /* reference vertex on v */
    float e0; /* inverse of the projected 2-D edge matrix */
    float e1;
    float e2;
    float e3;
} TriangleAccel;

/* KD-tree node (8 bytes). Inner node: word0 >= 0, bits 0-1 the split axis,
 * word0 & ~7 the byte offset to the pair of children; word1 the split
 * position (float bits). Leaf: word0 < 0; word1 the triangle count (listed
 * leaf, list at node - (word0 & ~3) bytes) or, when word1 is also negative,
 * up to three inline triangle indices. */
typedef struct KDTreeNode {
    int32_t word0;
    int32_t word1;
} KDTreeNode;

typedef struct KDTreeBuildParams {
    uint32_t algorithm;      /* qelKdSingleLeaf or qelKdCostDriven */
    uint32_t depthLimit;     /* 0 to 50 */
    float quality;           /* 0.0 (fast build) to 1.0 (best tree) */
    uint32_t memoryBudgetMb; /* cost-driven build: at least 32 */
    uint64_t passThrough;    /* reserved, pass 0 */
} KDTreeBuildParams;

/* What the intersection functions read: the scene box from
 * qelrSetBoundBox_32f, the accelerator records and the tree root. */
typedef struct QelTraceScene {
    const float* bounds;
    const TriangleAccel* accel;
    const KDTreeNode* root;
} QelTraceScene;

/* Spherical-harmonic state: an opaque caller-allocated block, sized by
 * qelrSHGetSize_32f and filled by qelrSHInit_32f. */
typedef struct QelSHEngine QelSHEngine;

typedef struct QelLibraryVersion {
    int32_t major;
    int32_t minor;
    int32_t update;
    int32_t build;
    char cpuCode[4];
    const char* libraryName;
    const char* versionText;
    const char* buildDate;
} QelLibraryVersion;

/* ------------------------------------------------------------------------ */
/* Version                                                                  */
/* ------------------------------------------------------------------------ */

QELR_API const QelLibraryVersion* qelrGetLibVersion(void);

/* ------------------------------------------------------------------------ */
/* Acceleration structures                                                  */
/* ------------------------------------------------------------------------ */

/* Vertices: three floats per vertex. Triangle indices: four ints per
 * triangle, the fourth is not read. */
QELR_API QelStatus qelrTriangleAccelGetSize(int* outRecordSize);
QELR_API QelStatus qelrTriangleAccelInit(TriangleAccel* records, const float* vertices,
                                         const int* triangleIndices, int triangleCount);
/* box: min x, min y, min z, max x, max y, max z, widened slightly. */
QELR_API QelStatus qelrSetBoundBox_32f(const float* vertices, int vertexCount, float* box);

/* Warning (cost-driven build): many triangles that overlap in one
 * axis-aligned plane (decals, doubled faces, 2-D meshes) make every split of
 * a flat cell look profitable, and each split copies the overlapping
 * triangles into both children. Such a tree can double with every level of
 * depth: it is bounded only by the depth limit, at most
 * 2^depthLimit * (16 + 4 * overlapping triangles) bytes, and by the memory
 * budget, which ends the build with qelErrMemoryBudget. For such meshes
 * choose the depth limit from that bound (for example 16 for a few hundred
 * overlapping triangles keeps the tree below about 100 MB), or move the
 * overlapping triangles apart. */
QELR_API QelStatus qelrKDTreeBuildAlloc(KDTreeNode** outTree, const float* vertices,
                                        const int* triangleIndices, int vertexCount,
                                        int triangleCount, int* outTreeSize,
                                        const KDTreeBuildParams* params);
QELR_API QelStatus qelrKDTreeFree(KDTreeNode* tree);

/* ------------------------------------------------------------------------ */
/* Ray casting                                                              */
/* ------------------------------------------------------------------------ */

/* Directions of the eye rays of one block of size.width x size.height rays. */
QELR_API QelStatus qelrCastEye_32f(const float* corner, const float* stepX, const float* stepY,
                                   int blockWidth, int blockHeight, QelPos2D blockPos,
                                   float* const dirs[3], QelSize2D size);

/* Nearest hit. dist: in, the largest distance of interest; out, the hit
 * distance. index: the hit triangle or -1. uv: barycentric weights of the
 * first and second vertex, written for hits only. */
QELR_API QelStatus qelrIntersectEyeSO_32f(const float origin[3], const float* const dirs[3],
                                          float* dist, float* const uv[2], int* index,
                                          const QelTraceScene* scene, QelSize2D size);
QELR_API QelStatus qelrIntersectMO_32f(const float* const origins[3], const float* const dirs[3],
                                       float* dist, float* const uv[2], int* index,
                                       const QelTraceScene* scene, QelSize2D size);
/* Any hit with 0 < t < 1 (shadow rays); rays with a negative mask are not
 * traced; a hit sets mask to -1 and index to the occluder. */
QELR_API QelStatus qelrIntersectAnySO_32f(const float origin[3], const float* const dirs[3],
                                          int* index, int* mask, QelSize2D size,
                                          const QelTraceScene* scene);
/* Successive hits along each ray, one layer of dist, uv and index per hit. */
QELR_API QelStatus qelrIntersectMultipleSO_32f(const float origin[3],
                                               const float* const dirs[3], float* dist,
                                               float* const uv[2], int* index,
                                               const QelLayeredSize* size,
                                               const QelTraceScene* scene);

/* points = (dir * eps) * dist + origin for rays with mask >= 0, else 0. */
QELR_API QelStatus qelrHitPoint3DEpsS0_32f_M(const float origin[3], const float* const dirs[3],
                                             const float* dist, const int* mask,
                                             float* const points[3], int len, float eps);
QELR_API QelStatus qelrHitPoint3DEpsM0_32f_M(const float* const origins[3],
                                             const float* const dirs[3], const float* dist,
                                             const int* mask, float* const points[3], int len,
                                             float eps);

/* ------------------------------------------------------------------------ */
/* Shading                                                                  */
/* ------------------------------------------------------------------------ */

QELR_API QelStatus qelrTriangleNormal_32f(const float* vertices, const int* triangleIndices,
                                          float* normals, int triangleCount);
QELR_API QelStatus qelrSurfFlatNormal_32f(const float* triangleNormals, const int* index,
                                          float* const normals[3], int len);
QELR_API QelStatus qelrSurfSmoothNormal_32f(const float* vertexNormals,
                                            const int* triangleIndices, const int* index,
                                            const float* const uv[2], float* const normals[3],
                                            int len, int indexGroupLength);

QELR_API QelStatus qelrDot_32f_P3C1M(const float* const a[3], const float* const b[3],
                                     const int* mask, float* dst, int len);
QELR_API QelStatus qelrDotChangeNorm_32f_IM(const float* const a[3], const int* mask,
                                            float* const normals[3], float* dst, int len);
QELR_API QelStatus qelrDistAttenuationSO_32f_M(const float light[3], const float* const points[3],
                                               const int* mask, float* dst, int len);
QELR_API QelStatus qelrCastShadowSO_32f(const float light[3], const float* sign,
                                        const float* const normals[3],
                                        const float* const points[3], int* mask, float* cosine,
                                        float* const shadowDirs[3], int len);
QELR_API QelStatus qelrCastReflectionRay_32f(const float* const incident[3], const int* mask,
                                             const float* const normals[3],
                                             float* const reflected[3], int len);
QELR_API QelStatus qelrMul_32f_C1IM(const float* src, const int* mask, float* srcDst, int len);
QELR_API QelStatus qelrMul_32f_C1P3IM(const float* src, const int* mask, float* const srcDst[3],
                                      int len);
QELR_API QelStatus qelrDiv_32f_C1IM(const float* src, const int* mask, float* srcDst, int len);
QELR_API QelStatus qelrAddMulMul_32f_AC1P3IM(const float colour[3], const float* scale,
                                             const float* const src[3], const int* mask,
                                             float* const srcDst[3], int len);

/* ------------------------------------------------------------------------ */
/* Spherical harmonics                                                      */
/* ------------------------------------------------------------------------ */

/* Coefficient (l, m) of order L is at l*l + l + m; (L+1)^2 per direction. */
QELR_API QelStatus qelrSHGetSize_32f(uint32_t order, uint32_t algorithm, uint32_t* outSize);
QELR_API QelStatus qelrSHInit_32f(QelSHEngine* engine, uint32_t order, uint32_t algorithm);
QELR_API QelStatus qelrSH_32f(const float* pX, const float* pY, const float* pZ, int n,
                              float* dst, uint32_t order, const QelSHEngine* engine);
QELR_API QelStatus qelrSHBand_32f(const float* pX, const float* pY, const float* pZ, int n,
                                  float* dst, uint32_t band);

QELR_API QelStatus qelrSHTFwd_32f_C1I(const float* pX, const float* pY, const float* pZ,
                                      const float* src, int n, float* coeffs, uint32_t order,
                                      const QelSHEngine* engine);
QELR_API QelStatus qelrSHTFwd_32f_C3P3I(const float* pX, const float* pY, const float* pZ,
                                        const float* src, int n, float* const coeffs[3],
                                        uint32_t order, const QelSHEngine* engine);
QELR_API QelStatus qelrSHTFwd_32f_P3I(const float* pX, const float* pY, const float* pZ,
                                      const float* const src[3], int n, float* const coeffs[3],
                                      uint32_t order, const QelSHEngine* engine);
QELR_API QelStatus qelrSHTInv_32f_C1(const float* coeffs, uint32_t order, const float* pX,
                                     const float* pY, const float* pZ, float* dst, int n,
                                     const QelSHEngine* engine);
QELR_API QelStatus qelrSHTInv_32f_P3(const float* const coeffs[3], uint32_t order,
                                     const float* pX, const float* pY, const float* pZ,
                                     float* const dst[3], int n, const QelSHEngine* engine);
QELR_API QelStatus qelrSHTInv_32f_P3C3(const float* const coeffs[3], uint32_t order,
                                       const float* pX, const float* pY, const float* pZ,
                                       float* dst, int n, const QelSHEngine* engine);

/* ------------------------------------------------------------------------ */
/* Volume processing                                                        */
/* ------------------------------------------------------------------------ */

/* Steps are in bytes. `V` volumes: element (x, y, z) at
 * base + z * sliceStep + y * rowStep + x * elementSize. `PV` volumes:
 * planes[z] + y * rowStep + x * elementSize. */

QELR_API QelStatus qelrGetResizeCuboid(QelBox3D srcBox, QelBox3D* outDstBox, double scaleX,
                                       double scaleY, double scaleZ, double offsetX,
                                       double offsetY, double offsetZ, int interpolation);

QELR_API QelStatus qelrResizeGetBufSize(QelBox3D srcBox, QelBox3D dstBox, int channelCount,
                                        int interpolation, int* outSize);
QELR_API QelStatus qelrResize_8u_C1V(const QelU8* srcData, QelVolumeSize srcSize, int srcRowStep,
                                     int srcSliceStep, QelBox3D srcBox, QelU8* dstData,
                                     int dstRowStep, int dstSliceStep, QelBox3D dstBox,
                                     double scaleX, double scaleY, double scaleZ, double offsetX,
                                     double offsetY, double offsetZ, int interpolation,
                                     QelU8* workBuffer);
QELR_API QelStatus qelrResize_16u_C1V(const uint16_t* srcData, QelVolumeSize srcSize,
                                      int srcRowStep, int srcSliceStep, QelBox3D srcBox,
                                      uint16_t* dstData, int dstRowStep, int dstSliceStep,
                                      QelBox3D dstBox, double scaleX, double scaleY,
                                      double scaleZ, double offsetX, double offsetY,
                                      double offsetZ, int interpolation, QelU8* workBuffer);
QELR_API QelStatus qelrResize_32f_C1V(const float* srcData, QelVolumeSize srcSize,
                                      int srcRowStep, int srcSliceStep, QelBox3D srcBox,
                                      float* dstData, int dstRowStep, int dstSliceStep,
                                      QelBox3D dstBox, double scaleX, double scaleY,
                                      double scaleZ, double offsetX, double offsetY,
                                      double offsetZ, int interpolation, QelU8* workBuffer);
QELR_API QelStatus qelrResize_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize,
                                      int srcRowStep, QelBox3D srcBox, QelU8* const dstData[],
                                      int dstRowStep, QelBox3D dstBox, double scaleX,
                                      double scaleY, double scaleZ, double offsetX,
                                      double offsetY, double offsetZ, int interpolation,
                                      QelU8* workBuffer);
QELR_API QelStatus qelrResize_16u_C1PV(const uint16_t* const srcData[], QelVolumeSize srcSize,
                                       int srcRowStep, QelBox3D srcBox,
                                       uint16_t* const dstData[], int dstRowStep,
                                       QelBox3D dstBox, double scaleX, double scaleY,
                                       double scaleZ, double offsetX, double offsetY,
                                       double offsetZ, int interpolation, QelU8* workBuffer);
QELR_API QelStatus qelrResize_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize,
                                       int srcRowStep, QelBox3D srcBox, float* const dstData[],
                                       int dstRowStep, QelBox3D dstBox, double scaleX,
                                       double scaleY, double scaleZ, double offsetX,
                                       double offsetY, double offsetZ, int interpolation,
                                       QelU8* workBuffer);

/* Maps: absolute source coordinates per destination voxel. */
QELR_API QelStatus qelrRemap_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize,
                                     int srcRowStep, QelBox3D srcBox,
                                     const float* const pxMap[], const float* const pyMap[],
                                     const float* const pzMap[], int mapStep,
                                     QelU8* const dstData[], int dstRowStep,
                                     QelVolumeSize dstVolume, int interpolation);
QELR_API QelStatus qelrRemap_16u_C1PV(const uint16_t* const srcData[], QelVolumeSize srcSize,
                                      int srcRowStep, QelBox3D srcBox,
                                      const float* const pxMap[], const float* const pyMap[],
                                      const float* const pzMap[], int mapStep,
                                      uint16_t* const dstData[], int dstRowStep,
                                      QelVolumeSize dstVolume, int interpolation);
QELR_API QelStatus qelrRemap_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize,
                                      int srcRowStep, QelBox3D srcBox,
                                      const float* const pxMap[], const float* const pyMap[],
                                      const float* const pzMap[], int mapStep,
                                      float* const dstData[], int dstRowStep,
                                      QelVolumeSize dstVolume, int interpolation);

/* coeffs: forward transform, destination = coeffs[i][0..2] . source + coeffs[i][3]. */
QELR_API QelStatus qelrWarpAffineGetBufSize(QelBox3D srcBox, QelBox3D dstBox, int channelCount,
                                            int interpolation, int* outSize);
QELR_API QelStatus qelrWarpAffine_8u_C1PV(const QelU8* const srcData[], QelVolumeSize srcSize,
                                          int srcRowStep, QelBox3D srcBox,
                                          QelU8* const dstData[], int dstRowStep, QelBox3D dstBox,
                                          const double coeffs[3][4], int interpolation);
QELR_API QelStatus qelrWarpAffine_16u_C1PV(const uint16_t* const srcData[],
                                           QelVolumeSize srcSize, int srcRowStep,
                                           QelBox3D srcBox, uint16_t* const dstData[],
                                           int dstRowStep, QelBox3D dstBox,
                                           const double coeffs[3][4], int interpolation);
QELR_API QelStatus qelrWarpAffine_32f_C1PV(const float* const srcData[], QelVolumeSize srcSize,
                                           int srcRowStep, QelBox3D srcBox,
                                           float* const dstData[], int dstRowStep,
                                           QelBox3D dstBox, const double coeffs[3][4],
                                           int interpolation);

QELR_API QelStatus qelrFilterGetBufSize(QelVolumeSize dstRoiSize, QelVolumeSize kernelSize,
                                        int nChannels, int* outBufferSize);
QELR_API QelStatus qelrFilter_16s_C1PV(const int16_t* const srcData[], int srcRowStep,
                                       int16_t* const dstData[], int dstRowStep,
                                       QelVolumeSize dstRoiSize, const int32_t* kernel,
                                       QelVolumeSize kernelSize, QelOffset3D anchor, int divisor,
                                       QelU8* workBuffer);

#ifdef __cplusplus
}
#endif

#endif /* QELR_H */
