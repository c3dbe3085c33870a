// The texts of the system were written for a platform whose `long` has 32 bits, and their readers compare them
// byte by byte. The C library's formatter follows the platform's `long` and the host's locale, so neither can
// serve; this one follows the texts.
#include "format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

// Widest field and longest precision, in characters: far above any text, far below an overflow of their sums.
constexpr int kMaxField = 1 << 20;
// Precision asked of a double at the most, so that the longest text (1e308 with its fraction) fits a buffer.
constexpr int kMaxPrecision = 60;
// 309 digits in front of the point, the point, the fraction, the terminator.
constexpr std::size_t kDoubleCapacity = 309 + 1 + kMaxPrecision + 1;
// 64 bits in octal, the longest of the three bases.
constexpr std::size_t kIntegerCapacity = 22;

enum class Width { tiny, small, word, wide };

struct Output {
    char *buffer;
    std::size_t capacity;
    std::size_t length; // of the whole text, which may pass the capacity

    void put(char c) {
        if (length + 1 < capacity) {
            buffer[length] = c;
        }
        ++length;
    }
    void put(std::string_view text) {
        for (char c : text) {
            put(c);
        }
    }
    void fill(char c, int count) {
        for (; count > 0; --count) {
            put(c);
        }
    }
};

struct Conversion {
    bool left = false;
    bool zero = false;
    bool plus = false;
    bool blank = false;
    bool alternate = false;
    int width = 0;
    int precision = -1; // -1: none given
    Width size = Width::word;
    char kind = 0;
};

// Wraps the argument list: a va_list may be an array type, which a function can't take by reference.
struct Arguments {
    std::va_list list;
};

int readNumber(const char *&at) {
    int number = 0;
    for (; *at >= '0' && *at <= '9'; ++at) {
        number = std::min(kMaxField, number * 10 + (*at - '0'));
    }
    return number;
}

void readFlags(const char *&at, Conversion &conversion) {
    for (;; ++at) {
        switch (*at) {
        case '-': conversion.left = true; break;
        case '0': conversion.zero = true; break;
        case '+': conversion.plus = true; break;
        case ' ': conversion.blank = true; break;
        case '#': conversion.alternate = true; break;
        default: return;
        }
    }
}

void readSize(const char *&at, Conversion &conversion) {
    const auto take = [&at](const char *prefix, Width size, Conversion &into) {
        const std::size_t length = std::strlen(prefix);
        if (std::strncmp(at, prefix, length) != 0) {
            return false;
        }
        at += length;
        into.size = size;
        return true;
    };
    (void)(take("I64", Width::wide, conversion) || take("I32", Width::word, conversion) ||
           take("ll", Width::wide, conversion) || take("hh", Width::tiny, conversion) ||
           take("l", Width::word, conversion) || take("h", Width::small, conversion) ||
           take("z", Width::wide, conversion) || take("I", Width::wide, conversion));
}

// Reads what stands between the percent sign and the letter; `*` takes its argument from the list.
Conversion readConversion(const char *&at, Arguments &arguments) {
    Conversion conversion;
    readFlags(at, conversion);
    if (*at == '*') {
        ++at;
        const int width = va_arg(arguments.list, int);
        conversion.left = conversion.left || width < 0;
        conversion.width = std::min(kMaxField, width < -kMaxField ? kMaxField : std::abs(width));
    } else {
        conversion.width = readNumber(at);
    }
    if (*at == '.') {
        ++at;
        if (*at == '*') {
            ++at;
            conversion.precision = std::clamp(va_arg(arguments.list, int), -1, kMaxField);
        } else {
            conversion.precision = readNumber(at);
        }
    }
    readSize(at, conversion);
    conversion.kind = *at;
    return conversion;
}

// One field: sign or prefix, then the body, padded to the width. Zeros go between prefix and body.
void putField(Output &out, const Conversion &conversion, std::string_view prefix, int zeros, std::string_view body) {
    const int64_t used = static_cast<int64_t>(prefix.size()) + zeros + static_cast<int64_t>(body.size());
    const int pad = static_cast<int>(std::max<int64_t>(0, conversion.width - used));
    if (!conversion.left) {
        out.fill(' ', pad);
    }
    out.put(prefix);
    out.fill('0', zeros);
    out.put(body);
    if (conversion.left) {
        out.fill(' ', pad);
    }
}

// Zeros that the flag `0` asks for: up to the width, behind the sign.
int zeroPadding(const Conversion &conversion, std::size_t prefix, std::size_t body) {
    if (!conversion.zero || conversion.left) {
        return 0;
    }
    return std::max(0, conversion.width - static_cast<int>(prefix + body));
}

std::string_view signOf(const Conversion &conversion, bool negative) {
    return negative ? "-" : conversion.plus ? "+" : conversion.blank ? " " : "";
}

void putInteger(Output &out, const Conversion &conversion, std::string_view prefix, uint64_t magnitude, int base,
                bool upper) {
    char digits[kIntegerCapacity];
    char *end = digits;
    if (magnitude != 0 || conversion.precision != 0) { // a zero of precision 0 has no digits
        end = std::to_chars(digits, digits + sizeof digits, magnitude, base).ptr;
    }
    if (upper) {
        std::transform(digits, end, digits, [](char c) { return c >= 'a' ? static_cast<char>(c - 32) : c; });
    }
    const auto count = static_cast<std::size_t>(end - digits);
    int zeros = conversion.precision >= 0 ? std::max(0, conversion.precision - static_cast<int>(count))
                                          : zeroPadding(conversion, prefix.size(), count);
    if (conversion.alternate && base == 8 && zeros == 0 && (count == 0 || digits[0] != '0')) {
        zeros = 1; // an octal number begins with a zero then
    }
    putField(out, conversion, prefix, zeros, {digits, count});
}

// The next argument in the width that the conversion asks, brought to 64 bits.
int64_t takeSigned(const Conversion &conversion, Arguments &arguments) {
    if (conversion.size == Width::wide) {
        return va_arg(arguments.list, int64_t);
    }
    const int32_t value = va_arg(arguments.list, int32_t);
    return conversion.size == Width::small  ? static_cast<int16_t>(value)
           : conversion.size == Width::tiny ? static_cast<int8_t>(value)
                                            : value;
}

uint64_t takeUnsigned(const Conversion &conversion, Arguments &arguments) {
    const auto bits = static_cast<uint64_t>(takeSigned(conversion, arguments));
    return conversion.size == Width::wide    ? bits
           : conversion.size == Width::small ? static_cast<uint16_t>(bits)
           : conversion.size == Width::tiny  ? static_cast<uint8_t>(bits)
                                             : static_cast<uint32_t>(bits);
}

void putSigned(Output &out, const Conversion &conversion, Arguments &arguments) {
    const int64_t value = takeSigned(conversion, arguments);
    const auto bits = static_cast<uint64_t>(value);
    putInteger(out, conversion, signOf(conversion, value < 0), value < 0 ? 0 - bits : bits, 10, false);
}

void putUnsigned(Output &out, const Conversion &conversion, Arguments &arguments) {
    const uint64_t value = takeUnsigned(conversion, arguments);
    const char kind = conversion.kind;
    const int base = kind == 'o' ? 8 : kind == 'u' ? 10 : 16;
    const bool prefixed = conversion.alternate && value != 0 && base == 16;
    putInteger(out, conversion, !prefixed ? "" : kind == 'x' ? "0x" : "0X", value, base, kind == 'X');
}

void putPointer(Output &out, Conversion conversion, Arguments &arguments) {
    const auto address = reinterpret_cast<std::uintptr_t>(va_arg(arguments.list, void *));
    conversion.precision = 2 * static_cast<int>(sizeof address);
    putInteger(out, conversion, "", address, 16, true);
}

void putDouble(Output &out, Conversion conversion, Arguments &arguments) {
    const double value = va_arg(arguments.list, double);
    const bool upper = conversion.kind < 'a';
    const auto style = conversion.kind == 'f' || conversion.kind == 'F'   ? std::chars_format::fixed
                       : conversion.kind == 'e' || conversion.kind == 'E' ? std::chars_format::scientific
                                                                          : std::chars_format::general;
    char text[kDoubleCapacity];
    const double magnitude = std::signbit(value) ? -value : value;
    const int precision = conversion.precision < 0 ? 6 : std::min(conversion.precision, kMaxPrecision);
    char *end = std::to_chars(text, text + sizeof text, magnitude, style, precision).ptr;
    if (!std::isfinite(value)) {
        conversion.zero = false;
    }
    if (upper) {
        std::transform(text, end, text, [](char c) { return c >= 'a' ? static_cast<char>(c - 32) : c; });
    }
    const std::string_view body(text, static_cast<std::size_t>(end - text));
    const std::string_view sign = signOf(conversion, std::signbit(value));
    putField(out, conversion, sign, zeroPadding(conversion, sign.size(), body.size()), body);
}

void putString(Output &out, const Conversion &conversion, Arguments &arguments) {
    const char *text = va_arg(arguments.list, const char *);
    if (text == nullptr) {
        text = "(null)";
    }
    // A precision bounds what is read, so that a text without a terminator can be printed.
    const std::size_t length = conversion.precision < 0
                                   ? std::strlen(text)
                                   : ::strnlen(text, static_cast<std::size_t>(conversion.precision));
    putField(out, conversion, "", 0, {text, length});
}

// False for a letter that is no conversion: it takes no argument.
bool putConversion(Output &out, const Conversion &conversion, Arguments &arguments) {
    switch (conversion.kind) {
    case 'd':
    case 'i': putSigned(out, conversion, arguments); return true;
    case 'u':
    case 'x':
    case 'X':
    case 'o': putUnsigned(out, conversion, arguments); return true;
    case 'p': putPointer(out, conversion, arguments); return true;
    case 's': putString(out, conversion, arguments); return true;
    case 'c': {
        const char c = static_cast<char>(va_arg(arguments.list, int));
        putField(out, conversion, "", 0, {&c, 1});
        return true;
    }
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G': putDouble(out, conversion, arguments); return true;
    case '%': out.put('%'); return true;
    default: return false;
    }
}

} // namespace

std::size_t qxFormatV(char *buffer, std::size_t capacity, const char *format, std::va_list arguments) {
    Output out{buffer, capacity, 0};
    Arguments list;
    va_copy(list.list, arguments);
    for (const char *at = format == nullptr ? "(null)" : format; *at != 0;) {
        if (*at != '%') {
            out.put(*at++);
            continue;
        }
        const char *const start = at++;
        const Conversion conversion = readConversion(at, list);
        if (putConversion(out, conversion, list)) {
            ++at;
        } else { // as it stands, up to but not including the unknown letter, which goes on as plain text
            out.put({start, static_cast<std::size_t>(at - start)});
        }
    }
    va_end(list.list);
    if (capacity != 0) {
        buffer[std::min(out.length, capacity - 1)] = 0;
    }
    return out.length;
}

std::size_t qxFormat(char *buffer, std::size_t capacity, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const std::size_t length = qxFormatV(buffer, capacity, format, arguments);
    va_end(arguments);
    return length;
}
