// SPDX-License-Identifier: Apache-2.0
// Growable strings through their operations, and byte buffers.
#include "utils/qel_string.h"

#include "support/support.h"

namespace {

// One operation and the state that it leaves.
struct Step {
    char operation;  // a: append, c: appendChar, s: set, f: appendf
    const char *text;
    uint32_t size = 0;
    int32_t avail = 0;
};

char *apply(qelString *s, const Step &step) {
    if (step.operation == 'c')
        return s->ops->appendChar(s, *step.text);
    if (step.operation == 'f')
        return s->ops->appendf(s, "%s", step.text) < 0 ? nullptr : s->buf;
    return (step.operation == 'a' ? s->ops->append : s->ops->set)(s, step.text);
}

const std::pair<int, std::vector<Step>> kSequences[] = {
    {0, {{'a', "abc", 4, 0}, {'a', "", 4, 0}, {'a', "x", 12, 7}, {'a', "12345678", 28, 15}}},
    {-3, {{'a', "abcd", 12, 7}, {'a', "1234567", 12, 0}, {'s', "", 12, 0}}},
    {2, {{'c', "a", 2, 0}, {'c', "b", 6, 3}, {'c', "c", 6, 2}, {'s', "abcdef", 8, 1}}},
    {1, {{'c', "a", 5, 3}}},
    // A shorter text leaves `avail` too small, below 0 even; the next operation puts that right.
    {1, {{'s', "abcdef", 8, 1}, {'s', "ab", 8, -1}, {'a', "c", 8, 4}}},
    {7, {{'a', "abcdef", 7, 0}, {'s', "abc", 7, -3}, {'f', "g", 12, 7}}},
    {8, {{'s', "ab", 8, 5}, {'f', "12345", 8, 0}, {'f', "", 8, 0}, {'f', "yz", 11, 1}}},
};

// A string that retries gets over any failure.
TEST(QelString, KeepsItsSizeAndRoomThroughSequencesOfOperations) {
    for (int round = 0; round < 14; ++round) {
        const auto &[size, steps] = kSequences[round / 2];
        int retry = round % 2;
        utils_testing_fail_allocation(2, retry);
        qelString *s = qelStringInit(size, retry);
        std::string content;
        for (const Step &step : steps) {
            utils_testing_fail_allocation(1, retry);
            const char *result = apply(s, step);
            utils_testing_fail_allocation(1, 0);
            content = (step.operation == 's' ? "" : content) + step.text;
            EXPECT_EQ(result, content);
            EXPECT_EQ(s->ops->get(s), result);
            EXPECT_EQ(s->ops->length(s), static_cast<int>(content.size()));
            EXPECT_EQ(s->size, step.size) << content;
            EXPECT_EQ(static_cast<int32_t>(s->avail), step.avail) << content;
        }
        s->ops->free(s);
    }
}

TEST(QelString, FormatsResultsOfEveryLength) {
    for (unsigned n = 0; n <= 600; ++n) {
        qelString *s = qelStringInit(100, 0);
        std::string text(n, static_cast<char>('a' + n % 26));
        EXPECT_EQ(s->ops->appendf(s, "%s", text.c_str()), static_cast<int>(n));
        EXPECT_EQ(s->buf, text);
        EXPECT_EQ(s->size, n > 99 ? n + 2 : 100);
        EXPECT_EQ(s->avail, s->size - 1 - n);
        s->ops->free(s);
    }
}

TEST(QelString, TakesItsOwnTextThoughItMoves) {
    qelString *s = qelStringInit(0, 0);
    s->ops->set(s, "0123456789");
    EXPECT_STREQ(s->ops->append(s, s->buf + 2), "012345678923456789");
    EXPECT_EQ(s->ops->appendf(s, "%s", s->buf + 10), 8);
    EXPECT_STREQ(s->ops->set(s, s->buf + 9), "92345678923456789");
    s->ops->clear(s);
    EXPECT_EQ(std::string(s->buf, s->size), std::string(s->avail + 1, '\0'));
    memcpy(s->buf, "abc", 3);  // past the operations, so that less is left than `avail` says
    std::string rest(s->size - 3, 'x');
    EXPECT_EQ(s->ops->appendf(s, "%s", rest.c_str()), static_cast<int>(rest.size()));
    EXPECT_EQ(s->buf, "abc" + rest);
    EXPECT_GT(s->size, 3 + rest.size());
    s->ops->free(s);
}

TEST(QelString, RefusesNullsAndFormatsThatCannotBe) {
    qelString *s = qelStringInit(0, 1), *none = nullptr;
    const qelStringOps *ops = s->ops;
    auto *appendf = ops->appendf;  // unseen by the compiler's checks
    const char *no_text = nullptr;
    for (char *refused : {ops->append(s, no_text), ops->set(s, no_text), ops->append(none, "x"),
                          ops->set(none, "x"), ops->appendChar(none, 'x'), ops->get(none)})
        EXPECT_EQ(refused, nullptr);
    for (int refused : {appendf(s, no_text), appendf(none, "x"), appendf(s, "%lc", 0x20AC)})
        EXPECT_EQ(refused, -1);
    EXPECT_EQ(ops->length(none), 0);
    ops->clear(none);
    ops->free(none);
    EXPECT_STREQ(s->buf, "");
    ops->free(s);
}

TEST(QelString, LosesItsTextOnlyWhenItCannotGrow) {
    for (int nth : {1, 2}) {
        auto work = [nth] {
            utils_testing_fail_allocation(nth, 1);
            EXPECT_EQ(qelStringInit(0, 0), nullptr);
        };
        EXPECT_EQ(support::captured(1, work), nth == 1 ? "qelStringInit: newstr = (nil)\n" : "");
    }
    const std::string long_text(300, 'x');
    for (const Step &step : {Step{'a', "12345"},
                             {'c', "x"},
                             {'f', "12345"},
                             {'f', long_text.c_str()},
                             {'s', "12345"}}) {
        qelString *s = qelStringInit(3, 0);
        s->ops->set(s, "ab");
        int harmless = step.text == long_text ? 1 : 0;  // formatting allocates before it grows
        const char *result = support::with_each_failure(
            [&] { return apply(s, step); },
            [&](const char *refused) {
                EXPECT_EQ(refused, nullptr);
                EXPECT_STREQ(s->ops->get(s), harmless-- > 0 ? "ab" : nullptr);
            });
        EXPECT_STREQ(result, step.operation == 's' ? "12345" : nullptr) << "only set revives it";
        EXPECT_EQ(s->ops->length(s), result != nullptr ? 5 : 0);
        s->ops->clear(s);
        EXPECT_STREQ(s->ops->set(s, "z"), "z") << "whatever room there was";
        s->ops->free(s);
    }
}

TEST(ByteBuffer, DoublesUntilItFitsAndWritesZerosBehindANul) {
    Buffer b{nullptr, 77, 77};
    initBuffer(nullptr, 1);
    initBuffer(&b, 0);
    EXPECT_EQ(appendBuffer(nullptr, "x", 1), reinterpret_cast<char *>(uintptr_t{1}));
    EXPECT_EQ(appendBuffer(&b, nullptr, 1), nullptr);
    EXPECT_EQ(appendBuffer(&b, "x", -1), nullptr);
    const std::tuple<std::string, int, int> cases[] = {
        {"", 0, 1}, {"a", 0, 1}, {"bc", 1, 4}, {{"d\0efgh", 6}, 3, 16}, {"own text", 9, 32}};
    for (const auto &[bytes, at, size] : cases) {
        const char *from = bytes == "own text" ? b.data + 1 : bytes.data();
        EXPECT_EQ(appendBuffer(&b, from, static_cast<int>(bytes.size())) - b.data, at);
        EXPECT_EQ(b.size, size);
    }
    EXPECT_EQ(std::string(b.data, 17), std::string("abcd\0\0\0\0\0bcd\0\0\0\0\0", 17));
    freeBuffer(&b);
    freeBuffer(nullptr);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.size, 0);
    EXPECT_EQ(b.used, 0);
    EXPECT_STREQ(appendBuffer(&b, "a", 2), "a") << "may be used again";
    freeBuffer(&b);
}

TEST(ByteBuffer, EndsTheProcessWhenMemoryRunsOut) {
    for (int failing : {1, 2, 0}) {
        support::Ending ending = support::in_child([&] {
            Buffer b;
            utils_testing_fail_allocation(std::max(failing, 1), failing > 0);
            initBuffer(&b, 2);
            appendBuffer(&b, "abc", failing != 0 ? 3 : INT32_MAX);
            return 0;
        });
        EXPECT_TRUE(ending.exited);
        EXPECT_EQ(ending.status, 255);
    }
}

}  // namespace
