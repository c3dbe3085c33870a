#include "uninterrupted.h"

#include <cerrno>

#include <windows.h>

// Threads aren't cancelled here. The system has an error number beside the one of the run-time library.
QXUninterrupted::QXUninterrupted() noexcept : error_(errno), cancel_(static_cast<int>(GetLastError())) {}

QXUninterrupted::~QXUninterrupted() {
    errno = error_;
    SetLastError(static_cast<DWORD>(cancel_));
}
