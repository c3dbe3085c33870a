// Whether the tests are built for a sanitizer, as GCC and clang say it.
#ifndef BRENVOLE_TESTS_SANITIZED_H
#define BRENVOLE_TESTS_SANITIZED_H

#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitized = true; // its allocator may be locked for good in a forked child
#else
inline constexpr bool kAddressSanitized = false;
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
inline constexpr bool kThreadSanitized = true; // it runs handlers when it likes, with faults blocked
#else
inline constexpr bool kThreadSanitized = false;
#endif
inline constexpr bool kSanitized = kAddressSanitized || kThreadSanitized;

#endif
