/** @file
 *  The program's standard streams, as the platform has them; implemented once per platform. */
#ifndef TERMINAL_TERMINAL_H
#define TERMINAL_TERMINAL_H

/** True if standard error goes to a terminal. */
bool errorsGoToTerminal();
/** Lets standard input hand out its bytes as they come, and standard output pass them on so; a terminal takes them
 * for UTF-8. */
void prepareStreams();

#endif
