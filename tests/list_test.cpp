#include "util/qxutil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
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
    for (d_List &list : lists) {
        ASSERT_NE(d_ListInit(&list), 0u);
    }
    for (Record &record : records) {
        d_ListInitNode(&record.Node);
    }
    for (int step = 0; step < 20000; ++step) {
        const unsigned which = random() % 2;
        d_List *list = &lists[which];
        auto &model = models[which];
        d_ListNode *node = &records[random() % records.size()].Node;
        d_ListNode *other = &records[random() % records.size()].Node;
        const bool onAny = node->lpList != nullptr;
        const auto at = std::find(model.begin(), model.end(), node);
        const auto behind = std::find(model.begin(), model.end(), other);
        switch (random() % 5) {
        case 0:
            ASSERT_EQ(d_ListAddHead(list, node) != 0, !onAny);
            if (!onAny) {
                model.insert(model.begin(), node);
            }
            break;
        case 1:
            ASSERT_EQ(d_ListAddTail(list, node) != 0, !onAny);
            if (!onAny) {
                model.push_back(node);
            }
            break;
        case 2: {
            const bool goes = !onAny && behind != model.end();
            ASSERT_EQ(d_ListInsert(list, other, node) != 0, goes);
            if (goes) {
                model.insert(behind + 1, node);
            }
            break;
        }
        case 3:
            ASSERT_EQ(d_ListRemove(list, node), at != model.end() ? node : nullptr);
            if (at != model.end()) {
                model.erase(at);
                ASSERT_EQ(+node->lpList, nullptr);
            }
            break;
        default:
            ASSERT_EQ(d_ListRemoveHead(list), model.empty() ? nullptr : model.front());
            if (!model.empty()) {
                model.erase(model.begin());
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

TEST(List, NullsAreRefused) {
    d_ListNode node;
    d_ListInitNode(&node);
    EXPECT_EQ(d_ListInit(nullptr), 0u);
    EXPECT_EQ(d_ListAddHead(nullptr, &node) + d_ListAddTail(nullptr, &node) + d_ListInsert(nullptr, &node, &node),
              0u);
    EXPECT_EQ(d_ListRemove(nullptr, &node), nullptr);
    EXPECT_EQ(d_ListRemoveHead(nullptr), nullptr);
    EXPECT_EQ(d_ListHead(nullptr), d_ListTail(nullptr));
    EXPECT_EQ(d_ListNext(nullptr), d_ListPrev(nullptr));
    EXPECT_EQ(d_ListCount(nullptr), 0u);
    d_ListInitNode(nullptr);
    d_ListLock(nullptr);
    d_ListUnLock(nullptr);
    d_ListClose(nullptr);
}

TEST(List, HolderMayCallEverythingAndOthersWait) {
    d_List list;
    d_ListInit(&list);
    std::vector<d_ListNode> nodes(400);
    for (d_ListNode &node : nodes) {
        d_ListInitNode(&node);
    }
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (unsigned i = t; i < nodes.size(); i += 4) {
                d_ListLock(&list);
                d_ListAddTail(&list, &nodes[i]); // the tail, as long as the list is held
                EXPECT_EQ(d_ListTail(&list), &nodes[i]);
                d_ListUnLock(&list);
                (void)d_ListCount(&list);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(walk(list).size(), nodes.size());
    d_ListClose(&list);
}

TEST(Lock, OwnerEntersAgainAndOthersWait) {
    QXCRITICALSECTION lock;
    qxOSInitializeCriticalSection(&lock);
    uint32_t plain = 0; // guarded by the lock alone
    int32_t interlocked = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
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
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(plain, 40000u);
    EXPECT_EQ(interlocked, 20000);
    qxOSDeleteCriticalSection(&lock);
}

} // namespace
