#include "frame_record.h"

#include <cstddef>
#include <cstring>

namespace {

// Tells two buffers apart, a word at a time; nobody here forges one. Each step can be undone, so one changed word
// always shows. The multiplier is odd, with bits all over (2 to the 64th, divided by the golden ratio).
uint64_t hashWord(uint64_t hash, uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15u;
    return hash ^ hash >> 32;
}

uint64_t hashBytes(uint64_t hash, const uint8_t *start, std::size_t bytes) {
    uint64_t word = 0;
    for (; bytes >= sizeof word; start += sizeof word, bytes -= sizeof word) {
        std::memcpy(&word, start, sizeof word);
        hash = hashWord(hash, word);
    }
    word = 0;
    std::memcpy(&word, start, bytes);
    return hashWord(hash, word);
}

std::string timeText(int64_t time) { return time == kNoTime ? "none" : std::to_string(time); }

} // namespace

FrameRecord recordFrame(const Media &media) {
    FrameRecord record;
    record.time = media.time;
    record.format = media.format;
    record.width = media.width;
    record.height = media.height;
    record.samples = media.samples;
    record.channels = media.channels;
    record.rate = media.rate;
    forEachRow(media, [&](const uint8_t *start, std::size_t bytes) {
        record.checksum = hashBytes(record.checksum, start, bytes);
    });
    return record;
}

std::string recordDifference(const FrameRecord &got, const FrameRecord &wanted) {
    if (recordFormat(got) != recordFormat(wanted)) {
        return "it is " + recordFormat(got) + " instead of " + recordFormat(wanted);
    }
    if (got.samples != wanted.samples) {
        return "it has " + std::to_string(got.samples) + " samples instead of " + std::to_string(wanted.samples);
    }
    if (got.time != wanted.time) {
        return "its time is " + timeText(got.time) + " instead of " + timeText(wanted.time);
    }
    return got == wanted ? "" : "its content differs";
}

std::string recordFormat(const FrameRecord &record) {
    if (record.width != 0) {
        return record.format + " " + std::to_string(record.width) + "x" + std::to_string(record.height);
    }
    return record.format + " " + std::to_string(record.channels) + " ch " + std::to_string(record.rate) + " Hz";
}
