/** @file
 *  The file of a report. A page appears whole or not at all: it is written beside its place and moved there. */
#ifndef TRACEVIEW_PAGE_FILE_H
#define TRACEVIEW_PAGE_FILE_H

#include "commands.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace traceview {

/** The name that stands for standard output. */
inline constexpr std::string_view kStandardOutput = "-";

struct PageFile {
    std::filesystem::path place;      ///< where the page goes, behind links
    std::filesystem::path unfinished; ///< where it is until then; empty: written in place, as to a pipe
    std::ofstream stream;
    bool toStandardOutput = false;
};

/** Before a long reading: whether there will be a page at all. False, and a word on standard error, if not. */
bool pageOpen(PageFile &page, const Options &options);

/** Puts the data into the page, and the page where it goes. False, and a word on standard error, if that fails. */
bool pageFinish(PageFile &page, const std::string &json);

/** Nothing is left of a page that isn't finished. */
void pageAbandon(PageFile &page);

} // namespace traceview

#endif
