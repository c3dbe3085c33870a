// Commands as the tests give them, and how every test of them begins and ends: without pool and cache, no message
// left unread, no block lost.
#ifndef BRENVOLE_TESTS_FRAME_FIXTURE_H
#define BRENVOLE_TESTS_FRAME_FIXTURE_H

#include "harness.h"

#include <brenvole/dframe.h>

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

inline constexpr uint64_t kWidenedOutOfMemory = 0xFFFFFFFFE8108020;
inline constexpr uint64_t kNowhere = UINT64_MAX;
inline constexpr int64_t kNoData = 0xB6DB6DB7; // times 1.4 is 0 in 32 bits

inline uint64_t run(uint32_t command, int64_t param1 = 0) { return DFrameMem(command, param1, 0, nullptr); }
inline uint64_t run(uint32_t command, PDFRAME &frame, int64_t param1 = 0, PDFRAME *source = nullptr) {
    return DFrameMem(command, param1, reinterpret_cast<uintptr_t>(source), &frame);
}
inline uint64_t alloc(PDFRAME &frame, int64_t size, uint32_t side = 0, uintptr_t record = DFRAME_SIZE) {
    return DFrameMem(DFRAME_ALLOC | side, size, record, &frame);
}
inline uint64_t addRef(PDFRAME frame) { return run(DFRAME_ADDREF, frame); }
inline uint64_t free(PDFRAME &frame) { return run(DFRAME_FREE, frame); }
inline uint32_t &countOf(PDFRAME frame) { return reinterpret_cast<uint32_t *>(frame)[-1]; }

// The caller lays a frame's data out anew.
inline void give(PDFRAME frame, uint8_t *data, uint32_t length, uint32_t used, uint32_t flags) {
    frame->lpData = data;
    frame->dwBufferLength = length;
    frame->dwBytesUsed = used;
    frame->dwFlags = flags;
}

// The rows of a table under data/; what begins with # is for its reader.
inline std::vector<std::istringstream> rowsOf(const std::string &name) {
    std::ifstream file(BRENVOLE_TEST_DATA + name);
    std::vector<std::istringstream> rows;
    for (std::string line; std::getline(file, line);) {
        if (line[0] != '#') { rows.emplace_back(line) >> std::setbase(0); }
    }
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}

struct FrameTest : testing::Test {
    LogCapture log;
    int64_t outBefore = (close(), blocksOut());

    ~FrameTest() override {
        failNth(0);
        replaceAlloc = nullptr;
        close();
        EXPECT_EQ(blocksOut(), outBefore);
    }
    void close() {
        EXPECT_EQ(log.take(), Texts{});
        run(DFRAME_CLOSE);
        log.take();
    }
    void makePool(int64_t size) {
        ASSERT_EQ(run(DFRAME_RESET, size), 0u);
        log.take();
    }
};

#endif
