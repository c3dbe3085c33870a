/* Processes that end while threads of theirs are at work in the library: the system ends these wherever they are,
 * then calls DllMain, which reports what has leaked. Without an argument, starts itself with one, again and again:
 * each must end by itself, and well. */
#include <brenvole/dframe.h>

#include <stdio.h>

#include <windows.h>

#define ENDS_WELL 3

static DWORD WINAPI work(void *unused) {
    while (unused == NULL) {
        PDFRAME frame = NULL;
        DFrameMem(DFRAME_ALLOC, 4096, DFRAME_SIZE, &frame);
        DFrameMem(255, 0, 0, NULL); /* logs */
        DFrameMem(DFRAME_FREE, 0, 0, &frame);
    }
    return 0;
}

static int end(void) {
    PDFRAME leaked = NULL;
    DFrameMem(DFRAME_RESET, 8000000, 0, NULL);
    DFrameMem(DFRAME_ALLOC, 100000, DFRAME_SIZE, &leaked);
    for (int i = 0; i < 4; ++i) { CreateThread(NULL, 0, work, NULL, 0, NULL); }
    while (DFrameMem(DFRAME_TOTALUSED, 0, 0, NULL) < 150000) { Sleep(0); } /* they have begun */
    return ENDS_WELL;
}

int main(int count, char **arguments) {
    if (count > 1) { return end(); }
    char line[MAX_PATH + 10];
    snprintf(line, sizeof line, "\"%s\" x", arguments[0]);
    for (int i = 0; i < 12; ++i) {
        STARTUPINFOA start = {.cb = sizeof start};
        PROCESS_INFORMATION process;
        DWORD code = 0;
        if (!CreateProcessA(NULL, line, NULL, NULL, FALSE, 0, NULL, NULL, &start, &process)) { return 1; }
        if (WaitForSingleObject(process.hProcess, 20000) != WAIT_OBJECT_0) { TerminateProcess(process.hProcess, 1); }
        GetExitCodeProcess(process.hProcess, &code);
        if (code != ENDS_WELL) {
            printf("process %d ended by %lu\n", i, code);
            return 1;
        }
    }
    puts("ok");
    return 0;
}
