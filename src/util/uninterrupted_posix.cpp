#include "uninterrupted.h"

#include <cerrno>

#include <pthread.h>

QXUninterrupted::QXUninterrupted() noexcept : error_(errno) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_);
}

QXUninterrupted::~QXUninterrupted() {
    pthread_setcancelstate(cancel_, nullptr);
    errno = error_;
}
