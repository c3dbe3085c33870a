/** @file
 *  The end of the library's stay in the process. Private. */
#ifndef QXUTIL_UNLOAD_H
#define QXUTIL_UNLOAD_H

/** Sees to it that DllMain is called with reason 0 when the library leaves the process, where the system doesn't
 *  do so itself. Called by the first command; later calls do nothing. */
void qxHookUnload();

/** True if that comes behind the at-exit handlers and static objects of the whole process. */
bool qxUnloadsBehindExit();

#endif
