// Both lists in words, for the log.
#include "heap.h"

#include "local/live_frames.h"
#include "util/format.h"
#include "util/guard.h"
#include "util/hold.h"

#include <atomic>

namespace brenvole {

namespace {

// A list is dumped at most once in this time.
constexpr uint32_t kPauseMs = 1000;
// A block of at least this many bytes holds a picture, a smaller one sound.
constexpr uint64_t kVideoBytes = 120000;
// Characters of items on one line.
constexpr std::size_t kLineItems = 254;

constexpr char kAllocTitle[] = "\nAllocList:";
constexpr char kFreeTitle[] = "\nFreeList: ";

std::atomic<uint32_t> lastDumpMs = 0; // one for all heaps

// Holds a list's lock for a scope.
class ListHold {
  public:
    explicit ListHold(d_List *list) : list_(list) { d_ListLock(list_); }
    ~ListHold() { d_ListUnLock(list_); }
    ListHold(const ListHold &) = delete;
    ListHold &operator=(const ListHold &) = delete;

  private:
    d_List *list_;
};

struct Dump {
    DFHEAP *heap;
    d_List *list;
    char line[sizeof kAllocTitle + kLineItems]; // the title or a line feed, then items
    std::size_t length = 0;                     // of the line
    uint32_t used = 0;                          // characters of items since the line was begun
    uint32_t videoChunks = 0;
    uint32_t audioChunks = 0;
};

void append(Dump &dump, const char *text) {
    dump.length += qxFormat(dump.line + dump.length, sizeof dump.line - dump.length, "%s", text);
}

void addItem(Dump &dump, const PHALLOC *record) {
    ++(record->qwSize >= kVideoBytes ? dump.videoChunks : dump.audioChunks);
    const uint64_t granule = dump.heap->qwGranularity;
    char item[64]; // three decimal words, one hexadecimal, the text between them
    const auto length = static_cast<uint32_t>(qxFormat(
        item, sizeof item, "(%ld>s%ld{r%ld})Owner(0x%08x)", static_cast<uint32_t>(record->qwOffset / granule),
        static_cast<uint32_t>(record->qwSize / granule), record->lRefCount, liveFrameLinkWord(record->pOwner)));
    if (length + dump.used > kLineItems) {
        ErrOut(dump.line); // holds no percent sign
        dump.length = 0;
        append(dump, "\n");
        dump.used = 0;
    }
    dump.used += length;
    append(dump, item);
}

// A record that can't be read is passed over; its neighbours are still told.
void walk(Dump &dump) {
    for (d_ListNode *node = d_ListHead(dump.list); node != nullptr; node = d_ListNext(node)) {
        qxGuarded([&] { addItem(dump, physRecord(node)); });
    }
    ErrOut("%s VideoChunks = %d, AudioChunks = %d", dump.line, dump.videoChunks, dump.audioChunks);
}

void _DFHEAP_DumpOne(DFHEAP *heap, d_List *list, const char *title) {
    if (heap == nullptr) {
        return;
    }
    Dump dump{heap, list, {}};
    append(dump, title);
    const QXHold hold(heap->Lock);
    const ListHold listHold(list);
    qxGuarded([&] { walk(dump); });
}

} // namespace

} // namespace brenvole

using namespace brenvole;

void _DFHEAP_DumpList(DFHEAP *heap) {
    const auto now = static_cast<uint32_t>(qxOSGetTimeMs());
    if (heap == nullptr || now - lastDumpMs.load(std::memory_order_relaxed) < kPauseMs) {
        return;
    }
    lastDumpMs.store(static_cast<uint32_t>(qxOSGetTimeMs()), std::memory_order_relaxed);
    _DFHEAP_DumpOne(heap, &heap->AllocList, kAllocTitle);
    _DFHEAP_DumpOne(heap, &heap->FreeList, kFreeTitle);
}
