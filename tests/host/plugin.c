/* A plug-in that embeds both libraries. While the loader runs its constructor, it calls the host, if that wants it.
 */
#include <brenvole/dframe.h>

#include <stdlib.h>

__attribute__((constructor)) static void loaded(void) {
    const char *const call = getenv("HOST_CALL");
    if (call != NULL) { ((void (*)(void))strtoull(call, NULL, 16))(); }
}

__attribute__((visibility("default"))) int work(int reset) {
    int bad = 0;
    bad |= reset && DFrameMem(DFRAME_RESET, 50000000, 0, NULL) != 0;
    for (int i = 0; i < 40; ++i) {
        PDFRAME frame[2] = {NULL, NULL};
        bad |= DFrameMem(DFRAME_ALLOC | DFRAME_FLAG_SYSHEAP, 1 << i % 17, 1, &frame[0]) != 0;
        bad |= DFrameMem(DFRAME_ALLOC, 100000, 1, &frame[1]) != 0;
        bad |= DFrameMem(DFRAME_FREE, 0, 0, &frame[0]) != 0;
        bad |= DFrameMem(DFRAME_FREE, 0, 0, &frame[1]) != 0;
    }
    return bad;
}
