/* Loads Brenvole.dll by its name, as programs do that aren't linked with it: every function by ordinal and by name, a
 * frame's life, unloaded, and once more from the start. */
#include <brenvole/dfheap.h>
#include <brenvole/dframe.h>

#include <stdio.h>

#include <windows.h>

static const struct {
    WORD ordinal;
    const char *name;
} kExports[] = {{1, "DllMain"},          {2, "DFrameMem"},         {3, "DFHEAP_Alloc"},
                {4, "DFHEAP_AddRef"},    {5, "DFHEAP_Free"},       {6, "DFHEAP_Create"},
                {7, "DFHEAP_Resize"},    {8, "DFHEAP_Destroy"},    {9, "DFHEAP_LargestAvail"},
                {10, "DFHEAP_State"},    {11, "DFHEAP_Lock"},      {12, "DFHEAP_SwapRef"},
                {13, "DFHEAP_FixAlloc"}, {14, "DFHEAP_FindAlloc"}, {15, "DFrameMemTrace"},
                {99, "_DFHEAP_DumpList"}};

typedef uint64_t (*Command)(uint32_t, int64_t, uintptr_t, PDFRAME *);

static int fail(const char *what) {
    printf("failed: %s\n", what);
    return 1;
}

/* 0 if all goes well. */
static int life(Command run) {
    PDFRAME frame = NULL;
    return run(DFRAME_RESET, 8000000, 0, NULL) != 0 || run(DFRAME_ALLOC, 100000, DFRAME_SIZE, &frame) != 0 ||
           run(DFRAME_ISBRENVOLE, 0, 0, &frame) != 1 || run(DFRAME_FREE, 0, 0, &frame) != 0;
}

static int once(void) {
    HMODULE library = LoadLibraryA("Brenvole.dll");
    if (library == NULL) { return fail("LoadLibrary"); }
    for (size_t i = 0; i < sizeof kExports / sizeof *kExports; ++i) {
        FARPROC named = GetProcAddress(library, kExports[i].name);
        if (named == NULL || named != GetProcAddress(library, (LPCSTR)(ULONG_PTR)kExports[i].ordinal)) {
            return fail(kExports[i].name);
        }
    }
    if (life((Command)(uintptr_t)GetProcAddress(library, (LPCSTR)2)) != 0) { return fail("a frame's life"); }
    FreeLibrary(library);
    return GetModuleHandleA("Brenvole.dll") != NULL ? fail("FreeLibrary") : 0;
}

int main(void) {
    /* As a host loads a plug-in: more often than a process has slots for thread-local data, which would be lost one a
     * time. */
    for (int i = 0; i < 1300; ++i) {
        if (once() != 0) { return 1; }
    }
    puts("ok");
    return 0;
}
