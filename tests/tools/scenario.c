/* A program that loses frames and makes other mistakes, each as told by its word, for the tools to find them in its
 * trace: scenario clean|leak|overwrite|late|hostile|heaps|reuse|random [SEED] */
#include <brenvole/dfheap.h>
#include <brenvole/dframe.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

static PDFRAME make(uint32_t bytes, uint32_t flags, const char *area, uint32_t line) {
    PDFRAME frame = NULL;
    if (DFrameMemTrace(DFRAME_ALLOC | flags, bytes, DFRAME_SIZE, &frame, area, line) != 0) { abort(); }
    return frame;
}

static void release(PDFRAME frame, const char *area, uint32_t line) {
    DFrameMemTrace(DFRAME_FREE, 0, 0, &frame, area, line);
}

static void work(void) {
    for (uint32_t round = 0; round < 100; ++round) {
        PDFRAME frame = make(1000 + round, round % 2 ? DFRAME_FLAG_SYSHEAP : 0, "decoder.c", 10);
        PDFRAME shared = NULL;
        DFrameMemTrace(DFRAME_DUP_FREE, 0, (uintptr_t)&frame, &shared, "editor.c", 20);
        release(frame, "decoder.c", 30);
        release(shared, "editor.c", 40);
    }
}

/* Three frames of line 50, whose second headers were released; one of line 60 that nobody touched. */
static void leak(void) {
    for (uint32_t round = 0; round < 3; ++round) {
        PDFRAME frame = make(50000, 0, "editor.c", 50);
        DFrameMemTrace(DFRAME_ADDREF, 0, 0, &frame, "screen.c", 55);
        release(frame, round == 0 ? "screen.c" : "writer.c", 56);
    }
    make(200, DFRAME_FLAG_SYSHEAP, "mixer.c", 60);
}

static void overwrite(void) {
    PDFRAME frame = make(2000, DFRAME_FLAG_SYSHEAP, "mixer.c", 11);
    frame->dwBytesUsed = 4000;
    release(frame, "mixer.c", 14);
}

/* The trace begins in the middle: what was made before is released unseen. */
static void late(void) {
    PDFRAME early = make(100, 0, "early.c", 1);
    extern int setenv(const char *, const char *, int);
    setenv("QXBRENVOLE_TRACE", "1", 1);
    for (int call = 0; call < 3 * 4096; ++call) { DFrameMem(DFRAME_TOTAL, 0, 0, NULL); }
    release(early, "late.c", 2);
}

static void hostile(void) {
    make(100, DFRAME_FLAG_SYSHEAP, "a \"quoted\", <b>bold</b></script><img src=x onerror=hack()>\n\033[31m", 1);
    make(100, DFRAME_FLAG_SYSHEAP, "\xFF\xC0\x80 \xE2\x80\xAE r\xC3\xA9sum\xC3\xA9 {a} %s", 2);
    make(100, DFRAME_FLAG_SYSHEAP, ",,,,\"\"\"", 3);
}

/* Two heaps of the program's own, far from each other, one of which ends with a block out. */
static void heaps(void) {
    DFHEAP *low = DFHEAP_Create(0, 0x10000000, 1 << 20, 4096, 4096);
    DFHEAP *high = DFHEAP_Create(0, 0x700000000000, 1 << 24, 4096, 4096);
    for (uint64_t round = 1; round <= 200; ++round) {
        uint64_t size = round * 1000;
        const uintptr_t block = DFHEAP_Alloc(high, &size, 7, NULL);
        uint64_t page = 1;
        DFHEAP_Alloc(low, &page, 9, NULL);
        DFHEAP_Free(high, block, NULL);
    }
    DFHEAP_Destroy(low);
    DFHEAP_Destroy(high);
}

/* A heap ends with a block out, and another one hands out its place. */
static void reuse(void) {
    for (int round = 0; round < 2; ++round) {
        DFHEAP *heap = DFHEAP_Create(0, 0x10000000, 1 << 20, 4096, 4096);
        uint64_t size = 1;
        const uintptr_t block = DFHEAP_Alloc(heap, &size, 9, NULL);
        if (round == 1) { DFHEAP_Free(heap, block, NULL); }
        DFHEAP_Destroy(heap);
    }
}

static void randomly(uint32_t seed) {
    enum { frames = 200 };
    static PDFRAME alive[frames];
    DFrameMem(DFRAME_RESET, 20000000, 0, NULL);
    for (uint32_t step = 0; step < 20000; ++step) {
        seed = seed * 1664525 + 1013904223;
        PDFRAME *const one = &alive[(seed >> 16) % frames];
        PDFRAME *const other = &alive[(seed >> 8) % frames];
        const uint32_t line = seed >> 28;
        if (*one == NULL) {
            *one = make((seed >> 12) % 70000 + 1, seed & 0x20 ? DFRAME_FLAG_SYSHEAP : 0, "random.c", line);
        } else if ((seed & 0x1F00) == 0 && *other != NULL) {
            DFrameMemTrace(DFRAME_SWAP, 0, (uintptr_t)one, other, "swap.c", line);
        } else if ((seed & 0x1F00) == 0x100) {
            DFrameMemTrace(DFRAME_RESIZE, (int64_t)(seed >> 12) % 90000, 0, one, "resize.c", line);
        } else if ((seed & 0x700) == 0x200 && *other == NULL) {
            DFrameMemTrace(DFRAME_DUP_FREE, 0, (uintptr_t)one, other, "share.c", line);
        } else if ((seed & 0x3FF00) == 0x300) {
            DFrameMem(DFRAME_DUMP, 0, 0, NULL);
        } else {
            release(*one, "random.c", line);
            *one = NULL;
        }
    }
    DFrameMem(DFRAME_DUMP, 0, 0, NULL);
}

int main(int count, char **words) {
    const char *word = count > 1 ? words[1] : "";
    if (strcmp(word, "clean") == 0 || strcmp(word, "leak") == 0) { work(); }
    if (strcmp(word, "leak") == 0) { leak(); }
    if (strcmp(word, "overwrite") == 0) { overwrite(); }
    if (strcmp(word, "late") == 0) { late(); }
    if (strcmp(word, "hostile") == 0) { hostile(); }
    if (strcmp(word, "heaps") == 0) { heaps(); }
    if (strcmp(word, "reuse") == 0) { reuse(); }
    if (strcmp(word, "random") == 0) { randomly(count > 2 ? (uint32_t)atoi(words[2]) : 1); }
    return 0;
}
