/** @file
 *  What an editor does with a picture that others still read: it takes a copy, lets a filter change it, puts a
 * caption behind it, and hands it to a preview. */
#ifndef MEDIA_PIPELINE_PICTURE_EDIT_H
#define MEDIA_PIPELINE_PICTURE_EDIT_H

#include "shared_frame.h"

#include <cstdint>

struct EditFigures {
    uint64_t edited = 0;
    uint64_t refused = 0;   ///< frames that there was no memory for
    uint64_t differing = 0; ///< whose preview doesn't hold what it should
    uint64_t toLose = 0;    ///< previews that are to be lost, as in a program with that fault
    uint64_t lost = 0;
};

/** Edits the picture, which lies in a frame, and compares what the preview gets with it, byte by byte. */
void editPicture(EditFigures &figures, const SharedFrame &share);

#endif
