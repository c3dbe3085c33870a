/** @file
 *  What the program asks of the platform; implemented once per platform. */
#ifndef MEDIA_PIPELINE_PLATFORM_H
#define MEDIA_PIPELINE_PLATFORM_H

/** Sets a variable of this process's environment; before it has threads. */
void setVariable(const char *name, const char *value);

#endif
