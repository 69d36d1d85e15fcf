/* A plain C99 caller: the header compiles strictly and the version query
 * answers through the exported entry. */
#include <qelr.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    const QelLibraryVersion* v = qelrGetLibVersion();
    int recordSize = 0;
    if (v == NULL || v != qelrGetLibVersion()) return 1;
    if (v->major != 7 || v->minor != 1 || v->update != 0 || v->build != 36264) return 2;
    if (memcmp(v->cpuCode, "m7\0\0", 4) != 0) return 3;
    if (strcmp(v->versionText, "7.1.0 (r36264)") != 0) return 4;
    if (qelrTriangleAccelGetSize(&recordSize) != qelOk || recordSize != 40) return 5;
    printf("%s %s\n", v->libraryName, v->versionText);
    return 0;
}
