#include "util/format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

namespace {

template <class... Arguments> std::string format(const char *text, Arguments... arguments) {
    char buffer[2048];
    const std::size_t length = qxFormat(buffer, sizeof buffer, text, arguments...);
    EXPECT_EQ(length, std::strlen(buffer));
    return buffer;
}

TEST(Format, LongHas32Bits) {
    EXPECT_EQ(format("(0x%lX)", 0xE8108004u), "(0xE8108004)");
    EXPECT_EQ(format("%ld %lu %d %u", 0xFFFFFFFFu, 0xFFFFFFFFu, -5, 5u), "-1 4294967295 -5 5");
    EXPECT_EQ(format("%08lX|%08X|%08x|%x", 0x1234u, 0xABCu, 0xABCu, 0xABCu), "00001234|00000ABC|00000abc|abc");
    EXPECT_EQ(format("%I64u %lld %I64d %llX", UINT64_MAX, INT64_MIN, int64_t{-7}, UINT64_MAX),
              "18446744073709551615 -9223372036854775808 -7 FFFFFFFFFFFFFFFF");
    EXPECT_EQ(format("%hd %hhu %zu %I32u", 65537, 511u, std::size_t{9}, 8u), "1 255 9 8");
}

TEST(Format, TextsPointersDoublesAndTheRest) {
    EXPECT_EQ(format("0x%p|%p", reinterpret_cast<void *>(0x1F2A3B40080), static_cast<void *>(nullptr)),
              "0x000001F2A3B40080|0000000000000000");
    EXPECT_EQ(format("%s|%s|%c|%%|%5s|%-5s|%.2s", "a", static_cast<const char *>(nullptr), 'x', "ab", "ab", "abc"),
              "a|(null)|x|%|   ab|ab   |ab");
    EXPECT_EQ(format("%.3f|%2.2f|%f|%.0f|%08.2f|%-8.1f|%+.1f", 0.4882812, 1234.565, -1.5, 2.5, -3.14159, 1.25, 2.0),
              "0.488|1234.57|-1.500000|2|-0003.14|1.2     |+2.0");
    EXPECT_EQ(format("%f|%5.1f|%F", std::nan(""), INFINITY, -INFINITY), "nan|  inf|-INF");
    EXPECT_EQ(format("%.2f", 1e308).size(), 312u);
    EXPECT_EQ(
        format("%5d|%-5d|%05d|%+d|% d|%.3d|%*d|%-*d|%.*s|%#x", 42, 42, -42, 42, 42, 7, 4, 1, 3, 2, 1, "xyz", 255u),
        "   42|42   |-0042|+42| 42|007|   1|2  |x|0xff");
    // What is no conversion is printed as it stands and takes no argument.
    EXPECT_EQ(format("%n%q%-08.3lk|%d", 5), "%n%q%-08.3lk|5");
    EXPECT_EQ(format("100%"), "100%");
    EXPECT_EQ(format("%5"), "%5");
    EXPECT_EQ(format(static_cast<const char *>(nullptr)), "(null)");
}

TEST(Format, NeverPastTheBuffer) {
    std::mt19937 random(1);
    const std::string letters = "%%%%-+ 0#.*123456789hlzI64duxXcspfegno\x80\n";
    for (int run = 0; run < 20000; ++run) {
        std::string text;
        for (auto i = random() % 12; i > 0; --i) { text += letters[random() % letters.size()]; }
        // Arguments that serve every conversion: a pointer to a text, whatever reads it. Doubles come from
        // registers of their own.
        std::string guarded(48, '~');
        const std::size_t capacity = random() % 32;
        const char *const s = "text";
        qxFormat(guarded.data(), capacity, text.c_str(), s, s, s, s, s, s, s, s, s, s, s, s);
        ASSERT_EQ(guarded.substr(capacity), std::string(48 - capacity, '~')) << text << " capacity " << capacity;
        ASSERT_TRUE(capacity == 0 || guarded.find('\0') < capacity);
    }
    EXPECT_EQ(qxFormat(nullptr, 0, "%s", "seven"), 5u);
}

} // namespace
