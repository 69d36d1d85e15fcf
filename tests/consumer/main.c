/* Builds a scene box through the installed library and its core services. */
#include <qelr.h>
#include <stdio.h>

int main(void) {
    float vertices[6] = {0.0f, 0.0f, 0.0f, 1.0f, 2.0f, 3.0f};
    float box[6];
    float* scratch = (float*)qelMalloc(64);
    if (scratch == NULL) return 1;
    qelFree(scratch);
    if (qelrSetBoundBox_32f(vertices, 2, box) != qelOk) return 2;
    if (!(box[0] < 0.0f && box[5] > 3.0f)) return 3;
    printf("%s: box %g..%g, %d threads\n", qelrGetLibVersion()->libraryName, box[0], box[5],
           ownGetNumThreads());
    return 0;
}
