#include "terminal.h"

#include <cstdio>

#include <fcntl.h>
#include <io.h>
#include <windows.h>

bool errorsGoToTerminal() { return _isatty(_fileno(stderr)) != 0; }

void prepareStreams() {
    SetConsoleOutputCP(CP_UTF8);
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
}
