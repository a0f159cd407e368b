#include "utils/qel_string.h"

#include <string>
#include <vector>

#include "support/one_failure.h"
#include "support/support.h"

namespace {

// One operation and the state that it leaves.
struct Step {
    char operation;  // i: a new string; a: append, c: appendChar, s: set, f: appendf, z: clear
    const char *text;
    uint32_t size = 0;
    int32_t avail = 0;
    const char *content = "";
};

char *apply(qelString *s, const Step &step) {
    switch (step.operation) {
        case 'a':
            return s->ops->append(s, step.text);
        case 'c':
            return s->ops->appendChar(s, *step.text);
        case 's':
            return s->ops->set(s, step.text);
        case 'f':
            return s->ops->appendf(s, "%s", step.text) < 0 ? nullptr : s->buf;
        default:
            s->ops->clear(s);
            return s->buf;
    }
}

const Step kSteps[] = {
    {'i', "0", 4, 3, ""},
    {'a', "abcd", 12, 7, "abcd"},
    {'a', "", 12, 7, "abcd"},
    {'a', "1234567", 12, 0, "abcd1234567"},
    {'a', "x", 20, 7, "abcd1234567x"},
    {'a', "12345678", 36, 15, "abcd1234567x12345678"},
    {'i', "-3", 4, 3, ""},
    {'c', "a", 4, 2, "a"},
    {'c', "b", 4, 1, "ab"},
    {'c', "c", 4, 0, "abc"},
    {'c', "d", 8, 3, "abcd"},
    {'i', "1", 1, 0, ""},
    {'c', "a", 5, 3, "a"},
    {'s', "abcde", 7, 1, "abcde"},
    {'a', "f", 7, 0, "abcdef"},
    // A shorter text leaves `avail` too small, below 0 even; the next operation puts that right.
    {'s', "ab", 7, -2, "ab"},
    {'a', "c", 7, 3, "abc"},
    {'s', "abcdef", 7, -3, "abcdef"},
    {'f', "g", 12, 4, "abcdefg"},
    {'i', "1", 1, 0, ""},
    {'a', "12345", 11, 5, "12345"},
    {'i', "16", 16, 15, ""},
    {'s', "12345678", 16, 7, "12345678"},
    {'s', "ab", 16, 5, "ab"},
    {'f', "123456", 18, 9, "ab123456"},
    {'f', "123456789", 18, 0, "ab123456123456789"},
    {'f', "", 18, 0, "ab123456123456789"},
    {'f', "yz", 21, 1, "ab123456123456789yz"},
    {'z', "", 21, 20, ""},
    {'s', "", 21, 20, ""},
};

TEST(QelString, KeepsItsSizeAndRoomThroughSequencesOfOperations) {
    for (int retry : {0, 1}) {
        qelString *s = qelStringInit(0, retry);
        for (const Step &step : kSteps) {
            // A string that retries gets over any failure.
            support::failing = retry;
            if (step.operation == 'i') {
                s->ops->free(s);
                s = qelStringInit(atoi(step.text), retry);
            } else {
                const char *result = apply(s, step);
                EXPECT_EQ(result, s->ops->get(s));
            }
            support::failing = 0;
            EXPECT_STREQ(s->buf, step.content);
            EXPECT_EQ(s->ops->length(s), static_cast<int>(strlen(step.content)));
            EXPECT_EQ(s->size, step.size) << step.content;
            EXPECT_EQ(static_cast<int32_t>(s->avail), step.avail) << step.content;
            EXPECT_LE(s->size, malloc_usable_size(s->buf));
            EXPECT_EQ(s->buf[s->size - 1], '\0');
            EXPECT_TRUE(step.operation != 'z' ||
                        std::string(s->buf, s->size) == std::string(s->size, '\0'));
        }
        s->ops->free(s);
    }
}

TEST(QelString, FormatsResultsOfEveryLength) {
    qelString *all = qelStringInit(0, 0);
    std::string expected;
    for (int n = 0; n <= 600; ++n) {
        qelString *one = qelStringInit(100, 0);
        std::string text(static_cast<size_t>(n), static_cast<char>('a' + n % 26));
        EXPECT_EQ(one->ops->appendf(one, "%.*s", n, text.c_str()), n);
        EXPECT_EQ(one->buf, text);
        EXPECT_EQ(one->size, n > 99 ? static_cast<uint32_t>(n) + 2 : 100U);
        EXPECT_EQ(one->avail, one->size - 1 - static_cast<uint32_t>(n));
        one->ops->free(one);
        // The text may be the string's own.
        EXPECT_EQ(all->ops->appendf(all, "%.*s%d", n, all->buf, n),
                  std::min<int>(n, static_cast<int>(expected.size())) +
                      static_cast<int>(std::to_string(n).size()));
        expected += expected.substr(0, static_cast<size_t>(n)) + std::to_string(n);
        ASSERT_EQ(all->buf, expected);
    }
    all->ops->free(all);
}

TEST(QelString, AppendsItsOwnTextThoughItMoves) {
    qelString *s = qelStringInit(0, 0);
    s->ops->set(s, "0123456789");
    s->ops->append(s, s->buf);
    EXPECT_STREQ(s->ops->append(s, s->buf + 12), "0123456789012345678923456789");
    EXPECT_STREQ(s->ops->set(s, s->buf + 20), "23456789");
    s->ops->free(s);
}

TEST(QelString, RefusesNullsAndFormatsThatCannotBe) {
    qelString *s = qelStringInit(0, 1);
    const qelStringOps *ops = s->ops;
    int (*appendf)(qelString *, const char *, ...) =
        ops->appendf;  // unseen by the compiler's checks
    for (qelString *object : {s, static_cast<qelString *>(nullptr)}) {
        const char *text = object == nullptr ? "text" : nullptr;
        EXPECT_EQ(ops->append(object, text), nullptr);
        EXPECT_EQ(ops->set(object, text), nullptr);
        EXPECT_EQ(appendf(object, text), -1);
        EXPECT_EQ(ops->length(object), 0);
    }
    EXPECT_EQ(ops->appendf(s, "%lc", static_cast<wint_t>(0x20AC)), -1);
    EXPECT_EQ(ops->appendChar(nullptr, 'a'), nullptr);
    EXPECT_EQ(ops->get(nullptr), nullptr);
    ops->clear(nullptr);
    ops->free(nullptr);
    EXPECT_STREQ(s->buf, "");
    EXPECT_EQ(s->size, 4U);
    ops->free(s);
}

TEST(QelString, SaysWhatFailedWhenMemoryRunsOut) {
    support::failing = 1;
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(qelStringInit(0, 0), nullptr); }),
              "qelStringInit: newstr = (nil)\n");
    support::failing = 2;
    EXPECT_EQ(support::captured(1, [] { EXPECT_EQ(qelStringInit(0, 0), nullptr); }), "");
    const Step steps[] = {{'a', "12345"}, {'s', "12345"}, {'c', "x"}, {'f', "12345"}};
    for (const Step &step : steps) {
        // Formatting allocates twice before it grows the text.
        const int harmless = step.operation == 'f' ? 2 : 0;
        for (int nth = 1; nth <= harmless + 1; ++nth) {
            qelString *s = qelStringInit(3, 0);
            s->ops->set(s, "ab");
            support::failing = nth;
            EXPECT_EQ(apply(s, step), nullptr);
            EXPECT_STREQ(s->ops->get(s), nth <= harmless ? "ab" : nullptr);
            if (nth > harmless) {
                EXPECT_EQ(s->ops->length(s), 0);
                s->ops->clear(s);
                for (const Step &other : steps)
                    EXPECT_EQ(apply(s, other) != nullptr,
                              other.operation == 's' || s->buf != nullptr);
                EXPECT_STREQ(s->buf, "12345x12345");
            }
            s->ops->free(s);
        }
    }
}

TEST(ByteBuffer, DoublesUntilItFitsAndWritesZerosBehindANul) {
    Buffer b{nullptr, 77, 77};
    initBuffer(nullptr, 1);
    initBuffer(&b, 3);
    EXPECT_EQ(appendBuffer(nullptr, "x", 1), reinterpret_cast<char *>(uintptr_t{1}));
    EXPECT_EQ(appendBuffer(&b, nullptr, 1), nullptr);
    EXPECT_EQ(appendBuffer(&b, "x", -1), nullptr);
    auto append = [&](const char *bytes, int len) {
        const char *to = appendBuffer(&b, bytes, len);
        return to - b.data;
    };
    EXPECT_EQ(append("abc", 3), 0);
    EXPECT_EQ(b.size, 3);
    EXPECT_EQ(append("d\0efgh", 6), 3);
    EXPECT_EQ(b.size, 12);
    EXPECT_EQ(append(b.data, 4), 9);
    EXPECT_EQ(std::string(b.data, static_cast<size_t>(b.used)),
              std::string("abcd\0\0\0\0\0abcd", 13));
    EXPECT_EQ(b.size, 24);
    freeBuffer(&b);
    freeBuffer(nullptr);
    EXPECT_TRUE(b.data == nullptr && b.size == 0 && b.used == 0);
    EXPECT_EQ(append("ab", 2), 0);
    EXPECT_EQ(b.size, 2);
    freeBuffer(&b);
    initBuffer(&b, 0);
    EXPECT_EQ(b.size, 1);
    freeBuffer(&b);
}

TEST(ByteBuffer, EndsTheProcessWhenMemoryRunsOut) {
    using Work = void (*)();
    for (Work work : {Work{[] {
                          Buffer b;
                          support::failing = 1;
                          initBuffer(&b, 8);
                      }},
                      Work{[] {
                          Buffer b;
                          initBuffer(&b, 2);
                          support::failing = 1;
                          appendBuffer(&b, "abc", 3);
                      }},
                      Work{[] {
                          Buffer b;
                          initBuffer(&b, 4);
                          b.used = 4;
                          appendBuffer(&b, "abc", INT32_MAX);
                      }}}) {
        support::Ending ending = support::in_child([&] {
            work();
            return 0;
        });
        EXPECT_TRUE(ending.exited && ending.status == 255);
    }
}

}  // namespace
