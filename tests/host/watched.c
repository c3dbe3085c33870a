/* Errors of a host's that a memory tool has to see through the library: watched NUMBER; 0 is a program without any.
 */
#include <brenvole/dframe.h>

#include <stdlib.h>
#include <string.h>

static PDFRAME make(uint32_t side, int64_t size) {
    PDFRAME frame = NULL;
    if (DFrameMem(DFRAME_ALLOC | side, size, 1, &frame) != 0) { exit(2); }
    memset(frame->lpData, 1, frame->dwBufferLength);
    return frame;
}

static volatile uint8_t sink;

int main(int count, char **arguments) {
    const int error = count > 1 ? atoi(arguments[1]) : 0;
    DFrameMem(DFRAME_RESET, 20000000, 0, NULL);
    PDFRAME pool = make(0, 100000), cached = make(DFRAME_FLAG_SYSHEAP, 900000),
            local = make(DFRAME_FLAG_SYSHEAP, 5000);
    PDFRAME shared = pool, copy = NULL;
    DFrameMem(DFRAME_ADDREF, 0, 0, &shared);
    DFrameMem(DFRAME_COPY, 0, (uintptr_t)&cached, &copy);
    uint8_t *const inPool = pool->lpData, *const inCached = copy->lpData, *const inLocal = local->lpData;
    const uint32_t length = pool->dwBufferLength;
    PDFRAME const header = local;
    DFrameMem(DFRAME_FREE, 0, 0, &shared);
    inPool[length - 1] = 5; /* has a holder still */
    if (error == 1) { inPool[length] = 5; }
    DFrameMem(DFRAME_FREE, 0, 0, &copy);
    DFrameMem(DFRAME_FREE, 0, 0, &cached);
    DFrameMem(DFRAME_FREE, 0, 0, &local);
    DFrameMem(DFRAME_FREE, 0, 0, &pool);
    switch (error) {
    case 2: sink = inPool[50]; break;
    case 3: inPool[50] = 1; break;
    case 4: sink = inCached[50]; break;
    case 5: inCached[50] = 1; break;
    case 6: sink = inLocal[50]; break;
    case 7: inLocal[50] = 1; break;
    case 8: sink = (uint8_t)header->dwSize; break;
    case 9: make(DFRAME_FLAG_SYSHEAP, 5000); break; /* lost */
    case 10: make(0, 5000); break;
    default: break;
    }
    PDFRAME next[2] = {make(0, 100000), make(DFRAME_FLAG_SYSHEAP, 800000)}; /* get the places of others */
    DFrameMem(DFRAME_FREE, 0, 0, &next[0]);
    DFrameMem(DFRAME_FREE, 0, 0, &next[1]);
    return 0;
}
