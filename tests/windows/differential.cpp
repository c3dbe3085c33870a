// A seeded sequence of commands, and all that comes of it: results, fields, bytes, messages, and the trace with names
// in the place of addresses. Two platforms have to print the same.
#include "util/qxutil.h"

#include <brenvole/dfheap.h>
#include <brenvole/dframe.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

// ---- the sequence ----------------------------------------------------------------------------------------------

// What tells of the machine or of addresses is cut.
void printMessage(uint32_t severity, const char *message, void *) {
    std::string text = message;
    for (const char *cut : {"0x", "Source(", "(Total=", "trace enabled"}) { text = text.substr(0, text.find(cut)); }
    std::replace(text.begin(), text.end(), '\n', '|');
    std::printf("  %08" PRIX32 " %s\n", severity, text.c_str());
}

constexpr std::size_t kFrames = 12;
std::array<PDFRAME, kFrames> frames{};
std::array<bool, kFrames> shares{}; // its data may be another frame's too

uint64_t command(uint32_t number, PDFRAME *frame, int64_t param1 = 0, uintptr_t param2 = 0) {
    static uint32_t line = 0;
    return DFrameMemTrace(number, param1, param2, frame, "differential", ++line);
}

void printFrame(const DFRAME *frame) {
    if (frame == nullptr) {
        std::printf("  null\n");
        return;
    }
    uint64_t sum = 14695981039346656037u; // of the bytes in use
    for (uint32_t i = 0; frame->lpData != nullptr && i < std::min(frame->dwBytesUsed, frame->dwBufferLength); ++i) {
        sum = (sum ^ frame->lpData[i]) * 1099511628211u;
    }
    std::printf("  %" PRIu32 " %08" PRIX32 " %" PRIu32 " %" PRIu32 " %d %016" PRIX64 "\n", frame->dwSize,
                frame->dwFlags, frame->dwBufferLength, frame->dwBytesUsed, frame->lpData != nullptr, sum);
}

void fill(PDFRAME frame, uint32_t value) {
    if (frame != nullptr && frame->lpData != nullptr && (frame->dwFlags & DFRAME_FLAG_CUSTOM) == 0) {
        frame->dwBytesUsed = value % (frame->dwBufferLength + 1);
        std::memset(frame->lpData, static_cast<int>(value), frame->dwBytesUsed);
    }
}

std::mt19937 source;
uint32_t draw(uint32_t below) { return static_cast<uint32_t>(source()) % below; }

uint64_t figures(uint32_t side, const PDFRAME *frame) {
    uint64_t figure = 0;
    uint64_t sum = command(DFRAME_LARGEST | side, reinterpret_cast<PDFRAME *>(&figure));
    sum = sum * 31 + figure;
    sum = sum * 31 + command(DFRAME_TOTALUSED | side, nullptr);
    sum = sum * 31 + command(DFRAME_TOTALAVAIL | side, nullptr);
    PDFRAME same = *frame;
    return sum * 31 + command(DFRAME_ISBRENVOLE, &same);
}

uint64_t step() {
    const uint32_t a = draw(kFrames), b = draw(kFrames), side = draw(2) * DFRAME_FLAG_SYSHEAP;
    const int64_t size = draw(draw(7) == 0 ? 900000 : 30000);
    PDFRAME *const frame = &frames[a];
    const auto other = reinterpret_cast<uintptr_t>(&frames[b]);
    switch (draw(16)) {
    case 0:
    case 1:
    case 2: return command(DFRAME_ALLOC | side, frame, size, draw(9500));
    case 3:
    case 4: shares[a] = false; return command(DFRAME_FREE, frame);
    case 5: {
        PDFRAME again = *frame;
        return command(DFRAME_ADDREF, &again) == 0 ? command(DFRAME_FREE, &again) : 1;
    }
    case 6:
    case 7: return a != b ? command(DFRAME_COPY, frame, 0, other) : 0;
    case 8: shares[a] = shares[b] = true; return command(DFRAME_DUP_FREE, frame, 0, other);
    case 9: return shares[a] || shares[b] ? 0 : command(DFRAME_SWAP, frame, size, other);
    case 10: return shares[a] ? 0 : command(DFRAME_RESIZE, frame, size);
    case 11: { // the local heap answers with an address
        const uint64_t found = command(DFRAME_FINDALLOC, frame);
        return command(DFRAME_ISLOCAL, frame) != 0 ? reinterpret_cast<uintptr_t>((*frame)->lpData) - found : found;
    }
    case 12: return command(DFRAME_FIXALLOC, frame);
    case 13: fill(shares[a] ? nullptr : *frame, draw(1 << 30)); return 0;
    case 14: return figures(side, frame);
    default: return command(draw(40) == 0 ? uint32_t{DFRAME_DUMP} : 23 + draw(5), nullptr);
    }
}

// ---- the trace -------------------------------------------------------------------------------------------------

struct Block {
    uint64_t size, data;
    std::string name;
};
std::map<uint64_t, Block> blocks; // by their base

std::vector<std::string> fieldsOf(const std::string &row) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (const char letter : row) {
        quoted ^= letter == '"';
        letter == ',' && !quoted ? static_cast<void>(fields.emplace_back()) : fields.back().push_back(letter);
    }
    return fields;
}

std::string nameOf(const std::string &address, bool base) {
    const uint64_t at = std::strtoull(address.c_str(), nullptr, 16);
    const auto above = blocks.upper_bound(at);
    if (at == 0 || above == blocks.begin()) { return address.empty() ? "" : "?"; }
    const auto &[start, block] = *std::prev(above);
    if (at - start >= block.size) { return "?"; }
    return base ? block.name : block.name + "+" + std::to_string(static_cast<int64_t>(at - block.data));
}

// Columns 9 to 11 are addresses, and the last may hold one.
void printRow(const std::string &row) {
    std::vector<std::string> fields = fieldsOf(row);
    if (fields.size() != 17) {
        std::printf("%s\n", row.c_str());
        return;
    }
    if (fields[3] == "\"alloc\"" && fields[4] == "\"ok\"") {
        const uint64_t base = std::strtoull(fields[11].c_str(), nullptr, 16);
        const uint64_t data = std::strtoull(fields[10].c_str(), nullptr, 16);
        const uint64_t end = data + std::strtoull(fields[13].c_str(), nullptr, 10);
        blocks[base] = {end - base, data, fields[5] + fields[6]};
    }
    fields[2] = "time";
    for (const std::size_t i : {std::size_t{9}, std::size_t{10}, std::size_t{11}}) {
        fields[i] = nameOf(fields[i], i == 11);
    }
    if (fields[3] == "\"trace_open\"") { fields[16] = "path"; }
    const std::size_t pointer = fields[16].find("param2=0x");
    if (pointer != std::string::npos && fields[16].compare(pointer + 9, 11, "00000000000") != 0) {
        fields[16].erase(pointer + 9, 16);
    }
    for (const std::string &field : fields) { std::printf("%s,", field.c_str()); }
    std::printf("\n");
}

} // namespace

int main(int, char **arguments) { // SEED STEPS, with the trace on into QXBRENVOLE_TRACE_FILE
    qxSetLogSink(printMessage, nullptr);
    source.seed(static_cast<uint32_t>(std::atoi(arguments[1])));
    command(DFRAME_RESET, nullptr, 4000000);
    for (int i = 0; i < std::atoi(arguments[2]); ++i) {
        std::printf("%d: %016" PRIX64 "\n", i, step());
        std::for_each(frames.begin(), frames.end(), printFrame);
    }
    for (PDFRAME &frame : frames) {
        if (frame != nullptr) { command(DFRAME_FREE, &frame); }
    }
    command(DFRAME_CLOSE, nullptr);
    DllMain(nullptr, 0, nullptr);
    std::ifstream trace(std::getenv("QXBRENVOLE_TRACE_FILE"), std::ios::binary);
    for (std::string row; std::getline(trace, row);) { printRow(row); }
    return 0;
}
