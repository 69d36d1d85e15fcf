// Compile-time checks of every record that crosses the library boundary:
// a change of size or field offset here would silently break callers.
#include <cstddef>
#include <type_traits>

#include "qelr.h"

#define QELR_PIN(type, field, offset) static_assert(offsetof(type, field) == (offset))

static_assert(sizeof(QelStatus) == 4 && std::is_signed_v<QelStatus>);
static_assert(sizeof(QelU8) == 1);

static_assert(sizeof(QelPos2D) == 8);
QELR_PIN(QelPos2D, x, 0);
QELR_PIN(QelPos2D, y, 4);

static_assert(sizeof(QelSize2D) == 8);
QELR_PIN(QelSize2D, width, 0);
QELR_PIN(QelSize2D, height, 4);

static_assert(sizeof(QelLayeredSize) == 12);
QELR_PIN(QelLayeredSize, width, 0);
QELR_PIN(QelLayeredSize, height, 4);
QELR_PIN(QelLayeredSize, layers, 8);

static_assert(sizeof(QelVolumeSize) == 12);
QELR_PIN(QelVolumeSize, width, 0);
QELR_PIN(QelVolumeSize, height, 4);
QELR_PIN(QelVolumeSize, depth, 8);

static_assert(sizeof(QelBox3D) == 24);
QELR_PIN(QelBox3D, x, 0);
QELR_PIN(QelBox3D, y, 4);
QELR_PIN(QelBox3D, z, 8);
QELR_PIN(QelBox3D, width, 12);
QELR_PIN(QelBox3D, height, 16);
QELR_PIN(QelBox3D, depth, 20);

static_assert(sizeof(QelOffset3D) == 12);
QELR_PIN(QelOffset3D, x, 0);
QELR_PIN(QelOffset3D, y, 4);
QELR_PIN(QelOffset3D, z, 8);

static_assert(sizeof(TriangleAccel) == 40);
QELR_PIN(TriangleAccel, axes, 0);
QELR_PIN(TriangleAccel, nu, 4);
QELR_PIN(TriangleAccel, pk, 8);
QELR_PIN(TriangleAccel, nv, 12);
QELR_PIN(TriangleAccel, pu, 16);
QELR_PIN(TriangleAccel, pv, 20);
QELR_PIN(TriangleAccel, e0, 24);
QELR_PIN(TriangleAccel, e1, 28);
QELR_PIN(TriangleAccel, e2, 32);
QELR_PIN(TriangleAccel, e3, 36);

static_assert(sizeof(KDTreeNode) == 8);
QELR_PIN(KDTreeNode, word0, 0);
QELR_PIN(KDTreeNode, word1, 4);

static_assert(sizeof(KDTreeBuildParams) == 24);
QELR_PIN(KDTreeBuildParams, algorithm, 0);
QELR_PIN(KDTreeBuildParams, depthLimit, 4);
QELR_PIN(KDTreeBuildParams, quality, 8);
QELR_PIN(KDTreeBuildParams, memoryBudgetMb, 12);
QELR_PIN(KDTreeBuildParams, passThrough, 16);

static_assert(sizeof(QelTraceScene) == 24);
QELR_PIN(QelTraceScene, bounds, 0);
QELR_PIN(QelTraceScene, accel, 8);
QELR_PIN(QelTraceScene, root, 16);

static_assert(sizeof(QelLibraryVersion) == 48);
QELR_PIN(QelLibraryVersion, major, 0);
QELR_PIN(QelLibraryVersion, minor, 4);
QELR_PIN(QelLibraryVersion, update, 8);
QELR_PIN(QelLibraryVersion, build, 12);
QELR_PIN(QelLibraryVersion, cpuCode, 16);
QELR_PIN(QelLibraryVersion, libraryName, 24);
QELR_PIN(QelLibraryVersion, versionText, 32);
QELR_PIN(QelLibraryVersion, buildDate, 40);
