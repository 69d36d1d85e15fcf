/* Prints the library version and builds the accelerator records and the
 * scene box of a small mesh: the smallest complete use of the library. */
#include <qelr.h>
#include <stdio.h>

int main(void) {
    const QelLibraryVersion* v = qelrGetLibVersion();
    /* A unit square in the z = 0 plane, two triangles; four indices per
     * triangle, the fourth unused. */
    const float vertices[] = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};
    const int triangles[] = {0, 1, 2, 0, 0, 2, 3, 0};
    TriangleAccel* records;
    float box[6];
    int recordSize = 0;

    printf("%s %s, %d threads\n", v->libraryName, v->versionText, ownGetNumThreads());

    qelrTriangleAccelGetSize(&recordSize);
    records = (TriangleAccel*)qelMalloc(2 * recordSize);
    if (records == NULL) return 1;
    qelrTriangleAccelInit(records, vertices, triangles, 2);
    if (qelrSetBoundBox_32f(vertices, 4, box) != qelOk) return 1;
    printf("scene box (%g %g %g) .. (%g %g %g), first record axes 0x%08x\n", box[0], box[1],
           box[2], box[3], box[4], box[5], (unsigned)records[0].axes);
    qelFree(records);
    return 0;
}
