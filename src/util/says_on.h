/** @file
 *  The values of environment variables that turn something on. Private. */
#ifndef QXUTIL_SAYS_ON_H
#define QXUTIL_SAYS_ON_H

#include <cstring>
#include <initializer_list>

/** @param lower  in lower case */
inline bool qxEqualsIgnoringCase(const char *text, const char *lower) {
    for (; *text != 0 && *lower != 0; ++text, ++lower) {
        const char letter = *text >= 'A' && *text <= 'Z' ? static_cast<char>(*text - 'A' + 'a') : *text;
        if (letter != *lower) {
            return false;
        }
    }
    return *text == *lower;
}

/** True if the value begins with 1, y or Y, or is true, on or yes, in upper or lower case.
 *  @param value  null: the variable isn't set */
inline bool qxSaysOn(const char *value) {
    if (value == nullptr || *value == 0) {
        return false;
    }
    if (std::strchr("1yY", *value) != nullptr) {
        return true;
    }
    for (const char *const word : {"true", "on", "yes"}) {
        if (qxEqualsIgnoringCase(value, word)) {
            return true;
        }
    }
    return false;
}

#endif
