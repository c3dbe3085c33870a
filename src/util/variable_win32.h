/** @file
 *  A variable of the process's environment, as the system has it: a run-time library may have a copy of its own that
 *  knows nothing of what another one has set. Compiled into both libraries. Private to units of the platform. */
#ifndef QXUTIL_VARIABLE_WIN32_H
#define QXUTIL_VARIABLE_WIN32_H

/** @return its value, null if unset. Valid until the variable changes and is read again. */
const char *qxReadVariable(const char *name) noexcept;

#endif
