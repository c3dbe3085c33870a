/** @file
 *  Distinguishes the end of the process from the unloading of a library. Private. */
#ifndef QXUTIL_EXIT_H
#define QXUTIL_EXIT_H

/** From now on qxInExit is right. Later calls do nothing. */
void qxHookExit();

/** True once the process is in exit(). Its other threads may still run then, inside the library as well; when a
 *  library is unloaded, no thread is inside. */
bool qxInExit();

/** True if the process has other threads than the calling one, or if the system doesn't say. */
bool qxHasOtherThreads();

#endif
