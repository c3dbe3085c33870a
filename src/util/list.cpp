// Doubly linked lists that carry their own lock. lpList of a node is the one truth about where the node is:
// it is set last on the way in and cleared first thing on the way out, always under the list's lock.
//
// Rules, checked in debug builds: L1 head and tail are both null or both not; L2 the count is 0 exactly for an
// empty list; L3 the end nodes have no neighbour outwards and name this list.
#include "hold.h"
#include "qxutil.h"

#include <atomic>
#include <cassert>

namespace {

void setCount(d_List *list, uint32_t count) {
    std::atomic_ref<uint32_t>(list->dwCount).store(count, std::memory_order_relaxed);
}

// What follows `node`, or is the list's head if that is null. The ends are read without the lock.
void setNext(d_List *list, d_ListNode *node, d_ListNode *next) {
    if (node != nullptr) {
        node->lpNext = next;
    } else {
        std::atomic_ref(list->lpHead).store(next, std::memory_order_release);
    }
}

// What stands in front of `node`, or is the list's tail.
void setPrev(d_List *list, d_ListNode *node, d_ListNode *prev) {
    if (node != nullptr) {
        node->lpPrev = prev;
    } else {
        std::atomic_ref(list->lpTail).store(prev, std::memory_order_release);
    }
}

[[maybe_unused]] bool sound(const d_List *list) {
    if (list->lpHead == nullptr || list->lpTail == nullptr) {
        return list->lpHead == list->lpTail && list->dwCount == 0; // L1, L2
    }
    return list->dwCount != 0 && list->lpHead->lpPrev == nullptr && list->lpTail->lpNext == nullptr && // L2, L3
           list->lpHead->lpList == list && list->lpTail->lpList == list;
}

// Lock held. Puts `node` between two neighbours, either of which may be null for the list's end. Refuses a node
// that is on a list: linking it twice would tear that list apart.
uint32_t link(d_List *list, d_ListNode *before, d_ListNode *node, d_ListNode *behind) {
    if (node->lpList != nullptr) {
        return 0;
    }
    node->lpPrev = before;
    node->lpNext = behind;
    setNext(list, before, node);
    setPrev(list, behind, node);
    node->lpList = list;
    setCount(list, list->dwCount + 1);
    assert(sound(list));
    return 1;
}

// Lock held; the node is on the list.
d_ListNode *unlink(d_List *list, d_ListNode *node) {
    setNext(list, node->lpPrev, node->lpNext);
    setPrev(list, node->lpNext, node->lpPrev);
    d_ListInitNode(node);
    setCount(list, list->dwCount - 1);
    assert(sound(list));
    return node;
}

} // namespace

uint32_t d_ListInit(d_List *list) {
    if (list == nullptr) {
        return 0;
    }
    list->lpHead = nullptr;
    list->lpTail = nullptr;
    list->dwCount = 0;
    list->dwReserved = 0;
    qxOSInitializeCriticalSection(&list->Lock);
    return 1;
}

void d_ListClose(d_List *list) {
    if (list == nullptr) {
        return;
    }
    while (d_ListRemoveHead(list) != nullptr) {
    }
    qxOSDeleteCriticalSection(&list->Lock);
}

void d_ListLock(d_List *list) {
    if (list != nullptr) {
        qxOSEnterCriticalSection(&list->Lock);
    }
}

void d_ListUnLock(d_List *list) {
    if (list != nullptr) {
        qxOSLeaveCriticalSection(&list->Lock);
    }
}

void d_ListInitNode(d_ListNode *node) {
    if (node != nullptr) {
        *node = {nullptr, nullptr, nullptr};
    }
}

uint32_t d_ListAddHead(d_List *list, d_ListNode *node) {
    if (list == nullptr || node == nullptr) {
        return 0;
    }
    const QXHold hold(list->Lock);
    return link(list, nullptr, node, list->lpHead);
}

uint32_t d_ListAddTail(d_List *list, d_ListNode *node) {
    if (list == nullptr || node == nullptr) {
        return 0;
    }
    const QXHold hold(list->Lock);
    return link(list, list->lpTail, node, nullptr);
}

uint32_t d_ListInsert(d_List *list, d_ListNode *after, d_ListNode *node) {
    if (list == nullptr || after == nullptr || node == nullptr) {
        return 0;
    }
    const QXHold hold(list->Lock);
    return after->lpList == list ? link(list, after, node, after->lpNext) : 0;
}

d_ListNode *d_ListRemoveHead(d_List *list) {
    if (list == nullptr) {
        return nullptr;
    }
    const QXHold hold(list->Lock);
    return list->lpHead != nullptr ? unlink(list, list->lpHead) : nullptr;
}

d_ListNode *d_ListRemove(d_List *list, d_ListNode *node) {
    if (list == nullptr || node == nullptr) {
        return nullptr;
    }
    const QXHold hold(list->Lock);
    return node->lpList == list ? unlink(list, node) : nullptr;
}

// One word each, which another thread may change the moment after, with or without a lock around the reading.
d_ListNode *d_ListHead(d_List *list) {
    return list != nullptr ? std::atomic_ref(list->lpHead).load(std::memory_order_acquire) : nullptr;
}

d_ListNode *d_ListTail(d_List *list) {
    return list != nullptr ? std::atomic_ref(list->lpTail).load(std::memory_order_acquire) : nullptr;
}

d_ListNode *d_ListNext(d_ListNode *node) { return node != nullptr ? node->lpNext : nullptr; }

d_ListNode *d_ListPrev(d_ListNode *node) { return node != nullptr ? node->lpPrev : nullptr; }

uint32_t d_ListCount(d_List *list) {
    return list != nullptr ? std::atomic_ref<uint32_t>(list->dwCount).load(std::memory_order_relaxed) : 0;
}
