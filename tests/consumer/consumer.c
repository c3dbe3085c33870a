#include <brenvole/dframe.h>
#include <brenvole/qxutil.h>

#include <stdio.h>
#include <string.h>

static void count(uint32_t severity, const char *message, void *context) {
    (void)severity;
    if (strcmp(message, "DFRAME_FREE2|*pDF==NULL(0xE8108005)") == 0) {
        ++*(int *)context;
    }
}

int main(void) {
    PDFRAME frame = NULL;
    int refusals = 0;
    qxSetLogSink(count, &refusals);
    if (DFrameMem(DFRAME_ALLOC, 3000, DFRAME_SIZE, &frame) != 0 || frame->dwBufferLength != 4200) {
        return 1;
    }
    memset(frame->lpData, 0, frame->dwBufferLength);
    if (DFrameMem(DFRAME_FREE, 0, 0, &frame) != 0 || frame != NULL) {
        return 2;
    }
    if (DFrameMem(DFRAME_FREE, 0, 0, &frame) != DFMEM_E_POINTER || refusals != 1) {
        return 3;
    }
    puts("consumer ok");
    return 0;
}
