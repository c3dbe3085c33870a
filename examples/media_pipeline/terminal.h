/** @file
 *  What the program asks of the platform; implemented once per platform. */
#ifndef MEDIA_PIPELINE_TERMINAL_H
#define MEDIA_PIPELINE_TERMINAL_H

/** True if standard error goes to a terminal. */
bool errorsGoToTerminal();

#endif
