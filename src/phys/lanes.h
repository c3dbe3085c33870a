/** @file
 *  Sixteen signed words side by side, by the vector instructions that every x86-64 processor has. */
#ifndef BRENVOLE_LANES_H
#define BRENVOLE_LANES_H

#include <algorithm>
#include <cstdint>

#include <emmintrin.h>

namespace brenvole {

/** A bit for each of the sixteen words that is at least `least`, which is above INT32_MIN. `words` is aligned to 16.
 */
inline uint32_t lanesAtLeast(const int32_t *words, int32_t least) {
    const __m128i below = _mm_set1_epi32(least - 1);
    const auto *const lanes = reinterpret_cast<const __m128i *>(words);
    const __m128i low = _mm_packs_epi32(_mm_cmpgt_epi32(_mm_loadu_si128(lanes), below),
                                        _mm_cmpgt_epi32(_mm_loadu_si128(lanes + 1), below));
    const __m128i high = _mm_packs_epi32(_mm_cmpgt_epi32(_mm_loadu_si128(lanes + 2), below),
                                         _mm_cmpgt_epi32(_mm_loadu_si128(lanes + 3), below));
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

/** The largest of sixteen words. */
inline int32_t lanesMost(const int32_t *words) { return *std::max_element(words, words + 16); }

/** Writes a record's address into `count` places. The last ones are written in one way for any number of them, some
 * places more than once: that costs less than a branch that no processor can foresee. */
template <class Record> void lanesFill(Record **places, uint64_t count, Record *record) {
    constexpr int64_t kTurn = 16;
    const __m128i two = _mm_set1_epi64x(reinterpret_cast<intptr_t>(record));
    const auto pair = [&](int64_t at) { _mm_storeu_si128(reinterpret_cast<__m128i *>(places + at), two); };
    if (count < 2) {
        std::fill_n(places, count, record);
        return;
    }
    auto left = static_cast<int64_t>(count);
    for (; left > kTurn; places += kTurn, left -= kTurn) {
        for (int64_t at = 0; at < kTurn; at += 2) {
            pair(at);
        }
    }
    for (int64_t at = 0; at < kTurn;
         at += 2) { // with one place left, behind whole turns, the pair begins one before it
        pair(std::min(at, left - 2));
    }
}

} // namespace brenvole

#endif
