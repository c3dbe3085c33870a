#include "harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

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
    const auto any = [&] { return &records[random() % records.size()].Node; };
    for (int step = 0; step < 20000; ++step) {
        const auto which = random() % 2, way = random() % 7;
        d_List *const list = &lists[which];
        auto &model = models[which];
        d_ListNode *const node = any(), *const other = any();
        const auto at = std::ranges::find(model, node), before = std::ranges::find(model, other);
        if (way < 3) { // in, unless it is on some list; at either end or behind one that is there
            const bool loose = std::ranges::count(models[0], node) + std::ranges::count(models[1], node) == 0;
            const bool goes = loose && (way < 2 || before != model.end());
            const uint32_t went = way == 0   ? d_ListAddHead(list, node)
                                  : way == 1 ? d_ListAddTail(list, node)
                                             : d_ListInsert(list, other, node);
            ASSERT_EQ(went != 0, goes);
            if (goes) { model.insert(way == 0 ? model.begin() : way == 1 ? model.end() : before + 1, node); }
        } else if (way == 3) {
            ASSERT_EQ(d_ListRemoveHead(list), model.empty() ? nullptr : model.front());
            if (!model.empty()) { model.erase(model.begin()); }
        } else { // out, unless it isn't on this list
            ASSERT_EQ(d_ListRemove(list, node), at != model.end() ? node : nullptr);
            if (at != model.end()) { model.erase(at); }
        }
        ASSERT_EQ(walk(*list), model) << "step " << step;
    }
    for (d_List &list : lists) {
        d_ListClose(&list); // takes off what is left
        EXPECT_EQ(walk(list).size(), 0u);
    }
    for (const Record &record : records) { EXPECT_EQ(+record.Node.lpList, nullptr); }
}

} // namespace
