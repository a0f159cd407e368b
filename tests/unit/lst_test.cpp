// SPDX-License-Identifier: Apache-2.0
// Linked lists against a model, foreign and null arguments, shared nodes, threads.
#include "utils/lst.h"

#include <cinttypes>
#include <deque>

#include "support/support.h"

namespace {

// The list holds exactly `model`, walked from both ends.
void expect_holds(LIST &list, const std::deque<NODE *> &model) {
    NODE *forward = list.head, *backward = list.tail;
    for (size_t i = 0; i < model.size(); ++i) {
        ASSERT_EQ(forward, model[i]);
        ASSERT_EQ(backward, model[model.size() - 1 - i]);
        forward = lstNext(forward);
        backward = lstPrevious(backward);
    }
    ASSERT_EQ(forward, nullptr);
    ASSERT_EQ(backward, nullptr);
    ASSERT_EQ(lstFirst(&list), list.head);
    ASSERT_EQ(lstLast(&list), list.tail);
    ASSERT_EQ(list.count, static_cast<int>(model.size()));
    ASSERT_EQ(lstCount(&list), list.count);
}

LIST made() {
    LIST list;
    lstInit(&list);
    return list;
}

// Two lists against two deques: every operation, at random places.
TEST(Lst, AgreesWithAModelOverRandomOperations) {
    std::mt19937 random(1);
    NODE nodes[40] = {};
    LIST list = made(), other = made();
    std::deque<NODE *> model, other_model, spare;
    for (NODE &node : nodes)
        spare.push_back(&node);
    auto take = [](std::deque<NODE *> &from, size_t at) {
        NODE *node = from.at(at);
        from.erase(from.begin() + static_cast<long>(at));
        return node;
    };
    for (int step = 0; step < 20000; ++step) {
        size_t at = random() % (model.size() + 1);
        NODE *here = at < model.size() ? model[at] : nullptr;
        int steps = static_cast<int>(random() % 21) - 10;
        size_t there = at + static_cast<size_t>(steps);
        auto what = random() % 6;
        if (what == 0 && !spare.empty()) {
            model.insert(model.begin() + static_cast<long>(at), take(spare, 0));
            if (at + 1 == model.size() && steps > 0)
                lstAdd(&list, model[at]);
            else
                lstInsert(&list, at > 0 ? model[at - 1] : nullptr, model[at]);
        } else if (what == 1 && here != nullptr) {
            spare.push_back(take(model, at));
            if (steps > 0)
                lstDelete(&list, here);
            else
                ASSERT_EQ(lstRemove(&list, here), 1);
            ASSERT_EQ(here->next, nullptr);
            ASSERT_EQ(here->previous, nullptr);
        } else if (what == 2) {
            NODE *first = model.empty() ? nullptr : spare.emplace_back(take(model, 0));
            ASSERT_EQ(lstGet(&list), first);
        } else if (what == 3 && !spare.empty()) {
            lstAdd(&other, other_model.emplace_back(take(spare, 0)));
        } else if (what == 4 && steps < 0) {
            ASSERT_EQ(lstConcat(&list, &other), 0);
            model.insert(model.end(), other_model.begin(), other_model.end());
            other_model.clear();
        } else {
            ASSERT_EQ(lstNth(&list, static_cast<int>(at) + 1), here);
            ASSERT_EQ(lstNth(&list, -steps * steps), nullptr);
            ASSERT_EQ(lstFind(&list, here), here != nullptr ? static_cast<int>(at) + 1 : -1);
            ASSERT_EQ(lstNStep(here, steps),
                      here != nullptr && there < model.size() ? model[there] : nullptr);
        }
        expect_holds(list, model);
        expect_holds(other, other_model);
    }
}

TEST(Lst, ForeignNodesAreReportedAndNullsAreHarmless) {
    NODE on{}, foreign{};
    LIST list = made();
    lstAdd(&list, &on);
    char expected[100];
    snprintf(expected, sizeof expected,
             "ERROR lstDelete() - cannot find NODE 0x%" PRIxPTR " in LIST\n",
             reinterpret_cast<uintptr_t>(&foreign));
    EXPECT_EQ(support::captured(2, [&] { lstDelete(&list, &foreign); }), expected);
    std::string silence = support::captured(2, [&] {
        for (LIST *none : {&list, static_cast<LIST *>(nullptr)}) {
            EXPECT_EQ(lstRemove(none, &foreign), 0);
            EXPECT_EQ(lstFind(none, &foreign), -1);
            lstAdd(none, nullptr);
            lstInsert(none, nullptr, nullptr);
        }
        lstInit(nullptr);
        lstAdd(nullptr, &foreign);
        lstInsert(nullptr, nullptr, &foreign);
        lstDelete(nullptr, &foreign);
        lstFree(nullptr);
        lstShallowCopy(nullptr, &list);
        lstShallowCopy(&list, nullptr);
        for (auto getter : {lstGet, lstFirst, lstLast})
            EXPECT_EQ(getter(nullptr), nullptr);
        for (NODE *none : {lstNth(nullptr, 1), lstNext(nullptr), lstPrevious(nullptr)})
            EXPECT_EQ(none, nullptr);
        EXPECT_EQ(lstCount(nullptr), 0);
        EXPECT_EQ(lstConcat(nullptr, &list), 1);
        EXPECT_EQ(lstConcat(&list, nullptr), 0);
        EXPECT_EQ(lstConcat(&list, &list), 1) << "a list cannot be joined to itself";
    });
    EXPECT_EQ(silence, "");
    expect_holds(list, {&on});
}

// Two headers over the same nodes: each grows behind its own tail, whatever the other put there.
TEST(Lst, TailAloneSaysWhereAListEnds) {
    NODE n[6] = {};
    LIST list = made(), view = made();
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

TEST(Lst, FreeReleasesNodesAndHeaderCanBeUsedAgain) {
    LIST list = made();
    for (int i = 0; i < 3; ++i)
        lstAdd(&list, static_cast<NODE *>(calloc(1, sizeof(NODE))));
    lstFree(&list);
    EXPECT_EQ(list.tail, nullptr);
    expect_holds(list = made(), {});
}

TEST(Lst, StaysConsistentUnderEightThreads) {
    LIST list = made();
    support::in_threads(8, [&](int) {
        NODE nodes[4] = {};
        for (int round = 0; round < 2000; ++round) {
            for (NODE &node : nodes)
                round % 2 == 0 ? lstAdd(&list, &node) : lstInsert(&list, nullptr, &node);
            for (NODE &node : nodes)
                ASSERT_EQ(lstRemove(&list, &node), 1);
        }
    });
    expect_holds(list, {});
}

}  // namespace
