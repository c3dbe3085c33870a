/** @file
 *  The table at the end. */
#ifndef MEDIA_PIPELINE_REPORT_H
#define MEDIA_PIPELINE_REPORT_H

#include "pipeline.h"

/** Prints the result on standard output.
 *  @param messages  of the library, over the whole run */
void printReport(const std::string &path, const PipelineResult &result, uint64_t messages);

#endif
