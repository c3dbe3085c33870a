#include <brenvole/dframe.h>
#include <brenvole/qxutil.h>

#include <stddef.h>

int main(void) {
    PDFRAME frame = NULL;
    const uint64_t made = DFrameMem(DFRAME_ALLOC, 3000, DFRAME_SIZE, &frame);
    const uint32_t length = frame->dwBufferLength;
    const uint64_t freed = DFrameMem(DFRAME_FREE, 0, 0, &frame);
    ErrOut("%s", made == 0 && length == 4200 && freed == 0 && frame == NULL ? "consumer ok" : "consumer failed");
    return 0;
}
