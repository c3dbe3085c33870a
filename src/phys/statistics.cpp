// What a heap holds, in figures.
#include "heap.h"

#include "util/hold.h"

#include <algorithm>

namespace brenvole {

namespace {

uint64_t sumOf(DFHEAP *heap, d_List *list) {
    const QXHold hold(heap->Lock);
    uint64_t sum = 0;
    for (d_ListNode *node = d_ListHead(list); node != nullptr; node = d_ListNext(node)) {
        const uint64_t size = physRecord(node)->qwSize;
        if (sum > UINT64_MAX - size) {
            return UINT64_MAX;
        }
        sum += size;
    }
    return sum;
}

} // namespace

uint64_t DFHEAP_TotalFree(DFHEAP *heap) { return heap != nullptr ? sumOf(heap, &heap->FreeList) : 0; }

uint64_t DFHEAP_TotalUsed(DFHEAP *heap) { return heap != nullptr ? sumOf(heap, &heap->AllocList) : 0; }

} // namespace brenvole

using namespace brenvole;

uint64_t DFHEAP_LargestAvail(DFHEAP *heap) {
    if (heap == nullptr) {
        return 0;
    }
    const QXHold hold(heap->Lock);
    if (heap->bLargestValid != 0 && _DFHEAP_UseListSearch() == 0) {
        return heap->qwLargestFree;
    }
    uint64_t largest = 0;
    for (d_ListNode *node = d_ListHead(&heap->FreeList); node != nullptr; node = d_ListNext(node)) {
        largest = std::max(largest, physRecord(node)->qwSize);
    }
    heap->qwLargestFree = largest;
    heap->bLargestValid = 1;
    return largest;
}
