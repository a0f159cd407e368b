#include "utils/getopt.h"

#include <thread>
#include <vector>

#include "support/support.h"

namespace {

// Writes down each callback as "option=argument@index"; the final one returns 70.
int note(void *arg, qelGetOptState *state) {
    auto &trace = *static_cast<std::string *>(arg);
    int option = qelGetOpt_opt(state);
    trace +=
        option == QELGETOPT_END ? std::string("end") : std::string(1, static_cast<char>(option));
    if (const char *value = qelGetOpt_arg(state); value != nullptr)
        trace += std::string("=") + value;
    trace += "@" + std::to_string(qelGetOpt_ind(state)) + " ";
    return option == QELGETOPT_END ? 70 : 0;
}

std::string trace_of(std::vector<std::string> words, const char *letters, int *result = nullptr) {
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    std::string trace;
    int returned = qelGetOpt(static_cast<int>(argv.size()), argv.data(), letters, note, &trace);
    if (result != nullptr)
        *result = returned;
    return trace;
}

TEST(GetOpt, ScansAsDescribed) {
    struct {
        std::vector<std::string> words;
        const char *letters, *trace, *messages;
    } cases[] = {
        {{"prog", "-ab", "x", "y"}, "ab:", "a@1 b=x@3 end@3 ", ""},
        {{"prog", "-abx", "-a", "y", "-a"}, "ab:", "a@1 b=x@2 a@3 end@3 ", ""},
        {{"prog", "--verbose", "-a"}, "ab:", "end@2 ", ""},
        {{"prog", "-a", "--", "-a"}, "ab:", "a@2 end@3 ", ""},
        {{"prog", "-b", "--"}, "ab:", "b=--@3 end@3 ", ""},
        {{"/bin/prog", "-b"}, "ab:", "?@2 end@2 ", "/bin/prog: option requires an argument -- b\n"},
        {{"prog", "-b"}, ":ab:", ":@2 end@2 ", ""},
        {{"/bin/prog", "-xa", "-:"},
         "ab:",
         "?@1 a@2 ?@3 end@3 ",
         "/bin/prog: illegal option -- x\n/bin/prog: illegal option -- :\n"},
        {{"prog", "-xa"}, ":a", "?@1 a@2 end@2 ", ""},
        {{"prog", "-", "-a"}, "a", "end@1 ", ""},
        {{"prog", "-", "-a"}, "a-", "-@2 a@3 end@3 ", ""},
        {{"prog", "-a-", "-a"}, "a", "a@1 end@1 ", ""},
        {{"prog", ""}, "a", "end@1 ", ""},
        {{"prog"}, "a", "end@1 ", ""},
        {{}, "a", "end@1 ", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.trace);
        int result = 0;
        EXPECT_EQ(support::captured(
                      2, [&] { EXPECT_EQ(trace_of(c.words, c.letters, &result), c.trace); }),
                  c.messages);
        EXPECT_EQ(result, 70);
    }
    EXPECT_EQ(qelGetOpt(0, nullptr, "a", nullptr, nullptr), -1);
}

TEST(GetOpt, CallbackMaySilenceTheMessages) {
    char prog[] = "prog", options[] = "-axb";
    char *argv[] = {prog, options};
    auto silence = [](void *, qelGetOptState *state) { return state->err = 0; };
    EXPECT_EQ(support::captured(2, [&] { qelGetOpt(2, argv, "ab:", silence, nullptr); }), "");
}

TEST(GetOpt, ThreadsScanAtTheSameTime) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::string value = std::to_string(t);
            for (int round = 0; round < 500; ++round)
                ASSERT_EQ(trace_of({"prog", "-ab" + value, "-b", value}, "ab:"),
                          "a@1 b=" + value + "@2 b=" + value + "@4 end@4 ");
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

}  // namespace
