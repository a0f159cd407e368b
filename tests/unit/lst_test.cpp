// SPDX-License-Identifier: Apache-2.0
#include "utils/lst.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "support/support.h"

namespace {

// The list holds exactly `model`, walked from both ends.
void expect_holds(const LIST &list, const std::deque<NODE *> &model) {
    NODE *forward = list.head, *backward = list.tail;
    for (size_t i = 0; i < model.size(); ++i) {
        ASSERT_EQ(forward, model[i]);
        ASSERT_EQ(backward, model[model.size() - 1 - i]);
        forward = lstNext(forward);
        backward = lstPrevious(backward);
    }
    ASSERT_EQ(forward, nullptr);
    ASSERT_EQ(backward, nullptr);
    ASSERT_EQ(list.count, static_cast<int>(model.size()));
}

// Two lists against two deques: every operation, at random places.
TEST(Lst, AgreesWithAModelOverRandomOperations) {
    std::mt19937 random(1);
    NODE nodes[40] = {};
    LIST list, other;
    lstInit(&list);
    lstInit(&other);
    std::deque<NODE *> model, other_model, spare;
    for (NODE &node : nodes)
        spare.push_back(&node);
    auto take = [](std::deque<NODE *> &from, size_t at) {
        NODE *node = from[at];
        from.erase(from.begin() + static_cast<long>(at));
        return node;
    };
    for (int step = 0; step < 20000; ++step) {
        size_t at = random() % (model.size() + 1);
        NODE *here = at < model.size() ? model[at] : nullptr;
        int steps = static_cast<int>(random() % 21) - 10;
        size_t there = at + static_cast<size_t>(steps);
        switch (random() % 6) {
            case 0:
                if (spare.empty())
                    break;
                model.insert(model.begin() + static_cast<long>(at), take(spare, 0));
                if (at + 1 == model.size() && random() % 2 == 0)
                    lstAdd(&list, model[at]);
                else
                    lstInsert(&list, at > 0 ? model[at - 1] : nullptr, model[at]);
                break;
            case 1:
                if (here == nullptr)
                    break;
                spare.push_back(take(model, at));
                if (random() % 2 == 0)
                    lstDelete(&list, here);
                else
                    ASSERT_EQ(lstRemove(&list, here), 1);
                ASSERT_EQ(here->next, nullptr);
                ASSERT_EQ(here->previous, nullptr);
                break;
            case 2:
                if (model.empty())
                    ASSERT_EQ(lstGet(&list), nullptr);
                else
                    ASSERT_EQ(lstGet(&list), spare.emplace_back(take(model, 0)));
                break;
            case 3:
                ASSERT_EQ(lstNth(&list, static_cast<int>(at) + 1), here);
                ASSERT_EQ(lstNth(&list, -steps * steps), nullptr);
                ASSERT_EQ(lstFind(&list, here), here != nullptr ? static_cast<int>(at) + 1 : -1);
                ASSERT_EQ(lstNStep(here, steps),
                          here != nullptr && there < model.size() ? model[there] : nullptr);
                break;
            case 4:
                if (!spare.empty())
                    lstAdd(&other, other_model.emplace_back(take(spare, 0)));
                break;
            default:
                if (steps > 0)
                    break;
                ASSERT_EQ(lstConcat(&list, &other), 0);
                model.insert(model.end(), other_model.begin(), other_model.end());
                other_model.clear();
        }
        expect_holds(list, model);
        expect_holds(other, other_model);
        ASSERT_EQ(lstCount(&list), list.count);
        ASSERT_EQ(lstFirst(&list), list.head);
        ASSERT_EQ(lstLast(&list), list.tail);
    }
}

TEST(Lst, DeleteOfForeignNodeReportsAndLeavesListAlone) {
    LIST list;
    lstInit(&list);
    NODE on{}, foreign{};
    lstAdd(&list, &on);
    char expected[100];
    snprintf(expected, sizeof expected,
             "ERROR lstDelete() - cannot find NODE 0x%" PRIxPTR " in LIST\n",
             reinterpret_cast<uintptr_t>(&foreign));
    EXPECT_EQ(support::captured(2, [&] { lstDelete(&list, &foreign); }), expected);
    EXPECT_EQ(support::captured(2, [&] { EXPECT_EQ(lstRemove(&list, &foreign), 0); }), "");
    expect_holds(list, {&on});
}

TEST(Lst, NullListsAreHarmless) {
    NODE node{};
    LIST list;
    lstInit(&list);
    lstInit(nullptr);
    lstAdd(nullptr, &node);
    lstInsert(nullptr, nullptr, &node);
    lstDelete(nullptr, &node);
    lstFree(nullptr);
    lstShallowCopy(nullptr, &list);
    lstShallowCopy(&list, nullptr);
    for (NODE *none : {lstGet(nullptr), lstFirst(nullptr), lstLast(nullptr), lstNth(nullptr, 1),
                       lstNext(nullptr)})
        EXPECT_EQ(none, nullptr);
    EXPECT_EQ(lstRemove(nullptr, &node), 0);
    EXPECT_EQ(lstCount(nullptr), 0);
    EXPECT_EQ(lstFind(nullptr, &node), -1);
    EXPECT_EQ(lstConcat(nullptr, &list), 1);
    EXPECT_EQ(lstConcat(&list, nullptr), 0);
    EXPECT_EQ(lstConcat(&list, &list), 1) << "a list cannot be joined to itself";
}

TEST(Lst, FreeReleasesNodesAndHeaderCanBeUsedAgain) {
    LIST list, view;
    lstInit(&list);
    lstInit(&view);
    for (int i = 0; i < 3; ++i)
        lstAdd(&list, static_cast<NODE *>(calloc(1, sizeof(NODE))));
    lstShallowCopy(&view, &list);
    expect_holds(view, {list.head, list.head->next, list.tail});
    lstFree(&list);
    lstInit(&list);
    expect_holds(list, {});
}

// Two headers over the same nodes: each grows behind its own tail, whatever the other put there.
TEST(Lst, TailAloneSaysWhereAListEnds) {
    NODE n[6] = {};
    LIST list, view;
    lstInit(&list);
    lstInit(&view);
    lstAdd(&list, &n[0]);
    lstShallowCopy(&view, &list);
    lstAdd(&list, &n[1]);
    lstAdd(&view, &n[2]);
    expect_holds(view, {&n[0], &n[2]});
    EXPECT_EQ(n[1].previous, &n[0]);
    lstShallowCopy(&list, &view);
    lstAdd(&list, &n[3]);
    lstInsert(&view, &n[2], &n[4]);
    EXPECT_EQ(view.tail, &n[4]);
    EXPECT_EQ(n[4].next, &n[3]) << "what stood behind the old tail stays linked";
    EXPECT_EQ(n[3].previous, &n[2]);
    lstInsert(&view, nullptr, &n[5]);
    EXPECT_EQ(view.tail, &n[4]);
    EXPECT_EQ(n[0].previous, &n[5]);
}

TEST(Lst, StaysConsistentUnderEightThreads) {
    LIST list;
    lstInit(&list);
    std::deque<std::deque<NODE>> nodes(8, std::deque<NODE>(4));
    std::vector<std::thread> threads;
    for (std::deque<NODE> &mine : nodes) {
        threads.emplace_back([&] {
            for (int round = 0; round < 2000; ++round) {
                for (NODE &node : mine)
                    round % 2 == 0 ? lstAdd(&list, &node) : lstInsert(&list, nullptr, &node);
                for (NODE &node : mine)
                    ASSERT_EQ(lstRemove(&list, &node), 1);
            }
            lstAdd(&list, &mine[0]);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    std::deque<NODE *> left;
    for (NODE *n = list.head; n != nullptr; n = n->next)
        left.push_back(n);
    EXPECT_EQ(left.size(), nodes.size());
    expect_holds(list, left);
    for (std::deque<NODE> &mine : nodes)
        EXPECT_GT(lstFind(&list, &mine[0]), 0);
}

}  // namespace
