#include "verify.h"

#include "media_file.h"

#include <algorithm>

namespace {

using Records = std::vector<std::vector<FrameRecord>>; // by stream

// Returns why it failed, if so.
std::string decodeReference(Records &records, const std::string &path, int threads, Progress &progress) {
    std::string error;
    MediaFile file = openMedia(path, threads, nullptr, error);
    if (file.source == nullptr) {
        return error;
    }
    records.resize(file.streams.size());
    uint64_t count = 0;
    const auto deliver = [&](const std::shared_ptr<const Media> &media) {
        records[media->stream].push_back(recordFrame(*media));
        ++count;
        if (progressDue(progress)) {
            progressShow(progress, "verifying  " + std::to_string(count) + " pictures and blocks");
        }
        return true;
    };
    decodeMedia(file, deliver); // the pipeline has told what is wrong with the file
    progressErase(progress);
    return "";
}

std::string placeText(std::size_t stream, bool pictures, std::size_t number) {
    return "stream " + std::to_string(stream) + (pictures ? ", picture " : ", block ") + std::to_string(number);
}

} // namespace

std::string verifyResult(const std::string &path, int threads, const PipelineResult &result, Progress &progress) {
    Records wanted;
    const std::string error = decodeReference(wanted, path, threads, progress);
    if (!error.empty()) {
        return "the second decoding failed: " + error;
    }
    if (wanted.size() != result.streams.size()) {
        return "the second decoding found other streams";
    }
    std::string first;
    uint64_t differences = 0;
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        const std::vector<FrameRecord> &got = result.streams[i].records;
        for (std::size_t k = 0; k < std::max(got.size(), wanted[i].size()); ++k) {
            const std::string difference = k >= got.size()         ? "it is missing"
                                           : k >= wanted[i].size() ? "it should not be there"
                                                                   : recordDifference(got[k], wanted[i][k]);
            if (!difference.empty() && differences++ == 0) {
                first = placeText(i, result.streams[i].about.pictures, k) + ": " + difference;
            }
        }
    }
    return differences == 0 ? "" : std::to_string(differences) + " of all records differ, first " + first;
}
