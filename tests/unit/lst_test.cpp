#include "utils/lst.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "support/support.h"

namespace {

struct Item {
    NODE node;
    int id;
};

std::vector<NODE *> forward(const LIST &list) {
    std::vector<NODE *> nodes;
    for (NODE *n = list.head; n != nullptr; n = n->next)
        nodes.push_back(n);
    return nodes;
}

// The list holds exactly `model`, walked from both ends.
void expect_holds(const LIST &list, const std::deque<NODE *> &model) {
    std::vector<NODE *> nodes = forward(list);
    ASSERT_TRUE(std::equal(nodes.begin(), nodes.end(), model.begin(), model.end()));
    ASSERT_EQ(list.count, static_cast<int>(model.size()));
    NODE *n = list.tail;
    for (auto it = model.rbegin(); it != model.rend(); ++it, n = n->previous)
        ASSERT_EQ(n, *it);
    ASSERT_EQ(n, nullptr);
}

// Every operation of the family against a deque, over random positions.
TEST(Lst, AgreesWithAModelOverRandomOperations) {
    std::mt19937 random(1);
    std::vector<Item> items(40);
    LIST list, other;
    lstInit(&list);
    lstInit(&other);
    std::deque<NODE *> model, other_model;
    std::vector<NODE *> free_nodes;
    for (Item &item : items)
        free_nodes.push_back(&item.node);
    for (int step = 0; step < 20000; ++step) {
        auto pick = [&](size_t below) { return static_cast<size_t>(random() % below); };
        NODE *fresh = free_nodes.empty() ? nullptr : free_nodes.back();
        switch (random() % 8) {
            case 0:
                if (fresh == nullptr)
                    break;
                lstAdd(&list, fresh);
                model.push_back(fresh);
                free_nodes.pop_back();
                break;
            case 1: {
                if (fresh == nullptr)
                    break;
                size_t at = pick(model.size() + 1);
                lstInsert(&list, at == 0 ? nullptr : model[at - 1], fresh);
                model.insert(model.begin() + static_cast<long>(at), fresh);
                free_nodes.pop_back();
                break;
            }
            case 2: {
                if (model.empty())
                    break;
                size_t at = pick(model.size());
                NODE *node = model[at];
                if (random() % 2 == 0)
                    lstDelete(&list, node);
                else
                    ASSERT_EQ(lstRemove(&list, node), 1);
                ASSERT_EQ(node->next, nullptr);
                ASSERT_EQ(node->previous, nullptr);
                model.erase(model.begin() + static_cast<long>(at));
                free_nodes.push_back(node);
                break;
            }
            case 3: {
                NODE *node = lstGet(&list);
                ASSERT_EQ(node, model.empty() ? nullptr : model.front());
                if (node != nullptr) {
                    model.pop_front();
                    free_nodes.push_back(node);
                }
                break;
            }
            case 4: {
                int position = static_cast<int>(pick(model.size() + 3)) - 1;
                bool inside = position >= 1 && position <= static_cast<int>(model.size());
                NODE *expected = inside ? model[static_cast<size_t>(position) - 1] : nullptr;
                ASSERT_EQ(lstNth(&list, position), expected);
                ASSERT_EQ(lstFind(&list, expected != nullptr ? expected : &items[0].node) > 0,
                          expected != nullptr ||
                              std::find(model.begin(), model.end(), &items[0].node) != model.end());
                break;
            }
            case 5: {
                if (model.empty())
                    break;
                int from = static_cast<int>(pick(model.size()));
                int steps = static_cast<int>(random() % 21) - 10;
                bool inside = from + steps >= 0 && from + steps < static_cast<int>(model.size());
                ASSERT_EQ(lstNStep(model[static_cast<size_t>(from)], steps),
                          inside ? model[static_cast<size_t>(from + steps)] : nullptr);
                break;
            }
            case 6:
                if (fresh == nullptr)
                    break;
                lstAdd(&other, fresh);
                other_model.push_back(fresh);
                free_nodes.pop_back();
                break;
            case 7:
                if (random() % 8 != 0)
                    break;
                ASSERT_EQ(lstConcat(&list, &other), 0);
                model.insert(model.end(), other_model.begin(), other_model.end());
                other_model.clear();
                expect_holds(other, other_model);
                break;
        }
        expect_holds(list, model);
        ASSERT_EQ(lstCount(&list), list.count);
        ASSERT_EQ(lstFirst(&list), list.head);
        ASSERT_EQ(lstLast(&list), list.tail);
    }
    pthread_mutex_destroy(&list.lock);
    pthread_mutex_destroy(&other.lock);
}

TEST(Lst, DeleteOfForeignNodeReportsAndLeavesListAlone) {
    LIST list;
    lstInit(&list);
    NODE on{}, foreign{};
    lstAdd(&list, &on);
    char expected[100];
    snprintf(expected, sizeof expected, "ERROR lstDelete() - cannot find NODE 0x%lx in LIST\n",
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(&foreign)));
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
    EXPECT_EQ(lstGet(nullptr), nullptr);
    EXPECT_EQ(lstRemove(nullptr, &node), 0);
    EXPECT_EQ(lstCount(nullptr), 0);
    EXPECT_EQ(lstFirst(nullptr), nullptr);
    EXPECT_EQ(lstLast(nullptr), nullptr);
    EXPECT_EQ(lstNth(nullptr, 1), nullptr);
    EXPECT_EQ(lstFind(nullptr, &node), -1);
    EXPECT_EQ(lstNext(nullptr), nullptr);
    EXPECT_EQ(lstPrevious(nullptr), nullptr);
    EXPECT_EQ(lstNStep(nullptr, 3), nullptr);
    EXPECT_EQ(lstConcat(nullptr, &list), 1);
    EXPECT_EQ(lstConcat(&list, nullptr), 0);
    EXPECT_EQ(lstConcat(&list, &list), 1);
}

TEST(Lst, FreeReleasesNodesAndHeaderCanBeUsedAgain) {
    LIST list, view;
    lstInit(&list);
    lstInit(&view);
    for (int i = 0; i < 3; ++i)
        lstAdd(&list, static_cast<NODE *>(calloc(1, sizeof(Item))));
    lstShallowCopy(&view, &list);
    expect_holds(view, {list.head, list.head->next, list.tail});
    lstFree(&list);
    lstInit(&list);
    expect_holds(list, {});
    EXPECT_EQ(lstGet(&list), nullptr);
}

TEST(Lst, StaysConsistentUnderEightThreads) {
    LIST list;
    lstInit(&list);
    constexpr int kThreads = 8, kRounds = 2000;
    std::vector<Item> items(kThreads * 4);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Item *mine = &items[static_cast<size_t>(t) * 4];
            for (int round = 0; round < kRounds; ++round) {
                for (int i = 0; i < 4; ++i)
                    i % 2 == 0 ? lstAdd(&list, &mine[i].node)
                               : lstInsert(&list, nullptr, &mine[i].node);
                for (int i = 0; i < 4; ++i)
                    ASSERT_EQ(lstRemove(&list, &mine[i].node), 1);
            }
            for (int i = 0; i < 4; ++i)
                lstAdd(&list, &mine[i].node);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(lstCount(&list), kThreads * 4);
    std::vector<NODE *> nodes = forward(list);
    EXPECT_EQ(nodes.size(), items.size());
    for (Item &item : items)
        EXPECT_EQ(std::count(nodes.begin(), nodes.end(), &item.node), 1);
}

}  // namespace
