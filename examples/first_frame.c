/* The shortest way through the library: make a frame, fill it, share it, let it go. */
#include <brenvole/dframe.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    const uint32_t size = 640 * 360; /* a grey picture, one byte a pixel */
    PDFRAME frame = NULL;
    if (DFrameMem(DFRAME_ALLOC, size, DFRAME_SIZE, &frame) != 0) {
        fputs("first_frame: no memory for a frame\n", stderr);
        return 1;
    }
    memset(frame->lpData, 128, size);
    frame->dwBytesUsed = size;
    printf("made:   %u of %u bytes used\n", (unsigned)frame->dwBytesUsed, (unsigned)frame->dwBufferLength);

    PDFRAME reader = frame; /* a second holder, with a reference of its own */
    DFrameMem(DFRAME_ADDREF, 0, 0, &reader);
    DFrameMem(DFRAME_FREE, 0, 0, &frame); /* the first holder lets go, and its pointer is null */
    printf("shared: the last pixel is still %d\n", reader->lpData[reader->dwBytesUsed - 1]);

    DFrameMem(DFRAME_FREE, 0, 0, &reader); /* the last reference: header and data go */
    puts("freed");
    return 0;
}
