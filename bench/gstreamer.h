/** @file
 *  What GStreamer needs before its first use. */
#ifndef BRENVOLE_BENCH_GSTREAMER_H
#define BRENVOLE_BENCH_GSTREAMER_H

#include <string>

/** Starts it, without a look for plugins, of which nothing here needs any.
 *  @return its name and version */
std::string gstreamerStart();

#endif
