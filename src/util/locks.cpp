#include "static_lock.h"

constinit QXStaticLock qxStoreLock;
constinit QXStaticLock qxLogLock;
constinit QXStaticLock qxSinkLock;
constinit QXStaticLock qxRegionLock;
