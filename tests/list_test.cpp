#include "harness.h"
#include "util/qxutil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

struct Record { // a frame's node is aligned to 4 bytes only, as this one
    uint32_t dwFront;
    d_ListNode Node;
};

std::vector<d_ListNode *> walk(d_List &list) {
    std::vector<d_ListNode *> nodes;
    for (d_ListNode *node = d_ListHead(&list); node != nullptr; node = d_ListNext(node)) {
        EXPECT_EQ(d_ListPrev(node), nodes.empty() ? nullptr : nodes.back());
        EXPECT_EQ(+node->lpList, &list);
        nodes.push_back(node);
    }
    EXPECT_EQ(d_ListTail(&list), nodes.empty() ? nullptr : nodes.back());
    EXPECT_EQ(d_ListCount(&list), nodes.size());
    return nodes;
}

// Two lists and a vector for each, under random operations, refused ones among them.
TEST(List, AgainstAVector) {
    std::mt19937 random(7);
    std::vector<Record> records(12);
    d_List lists[2];
    std::vector<d_ListNode *> models[2];
    for (d_List &list : lists) { ASSERT_NE(d_ListInit(&list), 0u); }
    for (Record &record : records) { d_ListInitNode(&record.Node); }
    for (int step = 0; step < 20000; ++step) {
        const unsigned which = random() % 2;
        d_List *list = &lists[which];
        auto &model = models[which];
        d_ListNode *node = &records[random() % records.size()].Node;
        const auto at = std::find(model.begin(), model.end(), node);
        if (random() % 2 == 0) { // in, unless it is on some list; at either end or behind one that is there
            const bool goes = node->lpList == nullptr;
            const std::size_t place = random() % (model.size() + 1);
            const uint32_t went = place == 0              ? d_ListAddHead(list, node)
                                  : place == model.size() ? d_ListAddTail(list, node)
                                                          : d_ListInsert(list, model[place - 1], node);
            ASSERT_EQ(went != 0, goes);
            if (goes) { model.insert(model.begin() + static_cast<std::ptrdiff_t>(place), node); }
        } else if (random() % 4 == 0) {
            ASSERT_EQ(d_ListRemoveHead(list), model.empty() ? nullptr : model.front());
            model.erase(model.begin(), model.begin() + (model.empty() ? 0 : 1));
        } else { // out, unless it isn't on this list
            d_ListNode *stranger = at == model.end() ? node : nullptr;
            ASSERT_EQ(d_ListRemove(list, node), stranger == nullptr ? node : nullptr);
            if (stranger == nullptr) {
                model.erase(at);
                ASSERT_EQ(+node->lpList, nullptr);
            } else if (node->lpList == nullptr) {
                ASSERT_EQ(d_ListInsert(list, stranger, node), 0u); // behind one that isn't there
            }
        }
        ASSERT_EQ(walk(*list), model) << "step " << step;
    }
    for (d_List &list : lists) {
        d_ListClose(&list);
        EXPECT_EQ(d_ListCount(&list), 0u);
    }
    for (const Record &record : records) {
        EXPECT_EQ(+record.Node.lpList, nullptr); // closing takes off what is left
    }
}

TEST(Lock, OwnerEntersAgainAndOthersWait) {
    QXCRITICALSECTION lock;
    qxOSInitializeCriticalSection(&lock);
    uint32_t plain = 0; // guarded by the lock alone
    int32_t interlocked = 0;
    onThreads(4, [&](int) {
        for (int i = 0; i < 5000; ++i) {
            qxOSEnterCriticalSection(&lock);
            qxOSEnterCriticalSection(&lock);
            ++plain;
            qxOSLeaveCriticalSection(&lock);
            ++plain; // still ours after the inner leave
            qxOSLeaveCriticalSection(&lock);
            qxOSInterlockedIncrement(&interlocked);
            qxOSInterlockedIncrement(&interlocked);
            qxOSInterlockedDecrement(&interlocked);
        }
    });
    EXPECT_EQ(plain, 40000u);
    EXPECT_EQ(interlocked, 20000);
    qxOSDeleteCriticalSection(&lock);
}

} // namespace
