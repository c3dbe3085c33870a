/** @file
 *  A hash of addresses. */
#ifndef QXUTIL_SPREAD_H
#define QXUTIL_SPREAD_H

#include <cstdint>

/** Spreads a number over all 64 bits; take the highest. Two rounds of multiplying and folding: addresses of one
 *  kind stand at even distances, which one round leaves in rows. */
inline std::uint64_t qxSpread(std::uint64_t key) {
    constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15; // 2^64 over the golden ratio
    const std::uint64_t once = key * kGolden;
    return (once ^ (once >> 32)) * kGolden;
}

#endif
