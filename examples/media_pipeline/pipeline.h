/** @file
 *  The pipeline: one thread decodes, two look at what comes out, one edits the pictures, one collects all.
 *
 *      decoder ----> pictures ----> brightness
 *        |  |------> edits -------> a negative with a caption, in frames of its own
 *        |  '------> samples -----> level
 *        '---------> everything --> records, in the order of presentation
 *
 *  Nothing is copied on the way: each thread has a share in the frame that the decoder has written. Who must change a
 *  picture takes a copy. */
#ifndef MEDIA_PIPELINE_PIPELINE_H
#define MEDIA_PIPELINE_PIPELINE_H

#include "audio_level.h"
#include "frame_ledger.h"
#include "frame_record.h"
#include "media_file.h"
#include "picture_edit.h"
#include "picture_stats.h"
#include "terminal/progress.h"

#include <cstdint>
#include <string>
#include <vector>

struct StreamResult {
    MediaStream about;
    uint64_t samples = 0; ///< per channel
    uint64_t placed = 0;  ///< of the records, those that lay in frames
    PictureStats brightness;
    AudioLevel level;
    std::vector<FrameRecord> records;
};

struct PipelineResult {
    bool opened = false;
    std::string error; ///< empty if nothing went wrong
    std::vector<StreamResult> streams;
    EditFigures edits;
    LedgerFigures frames; ///< after the end of all threads and decoders
    PoolFigures pool;     ///< then, too
    double seconds = 0;
};

/** @param local  all frames to the local heap, be there a pool or not
 *  @param leak   frames to be lost on purpose */
PipelineResult runPipeline(const std::string &path, int threads, bool local, int leak, Progress &progress);

/** All records of pictures, or of blocks of samples. */
uint64_t countRecords(const PipelineResult &result, bool pictures);

#endif
