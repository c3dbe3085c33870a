#include "commands.h"

#include <cstdio>

namespace traceview {

bool openTrace(Reader &reader, const Options &options) {
    if (readerOpen(reader, options.file)) {
        return true;
    }
    std::fprintf(stderr, "brenvole-trace: %s %s\n", readerName(reader).c_str(), reader.findings.failure.c_str());
    return false;
}

bool readTrace(Reader &reader, Live &live, const Options &options) {
    if (!openTrace(reader, options)) {
        return false;
    }
    for (Row row; readerNext(reader, row);) {
        liveFollow(live, row);
    }
    return true;
}

std::vector<std::string> remarksOf(const Reader &reader, const Live &live) {
    std::vector<std::string> remarks = readerRemarks(reader.findings);
    const std::vector<std::string> more = liveRemarks(live);
    remarks.insert(remarks.end(), more.begin(), more.end());
    return remarks;
}

void tellRemarks(const Reader &reader, const Live &live) {
    for (const std::string &remark : remarksOf(reader, live)) {
        std::fprintf(stderr, "brenvole-trace: %s: %s\n", readerName(reader).c_str(), remark.c_str());
    }
}

int verdict(const Reader &reader, bool found) {
    if (!reader.findings.failure.empty()) {
        return kUnreadable;
    }
    return found ? kFound : kClean;
}

} // namespace traceview
