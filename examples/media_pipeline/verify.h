/** @file
 *  The counter-check: the same file once more, without a frame of the library. */
#ifndef MEDIA_PIPELINE_VERIFY_H
#define MEDIA_PIPELINE_VERIFY_H

#include "pipeline.h"

/** Decodes the file into the decoders' own buffers, on the calling thread, and compares every record.
 *  @return where the pipeline's result differs, in words; empty if nowhere */
std::string verifyResult(const std::string &path, int threads, const PipelineResult &result, Progress &progress);

#endif
