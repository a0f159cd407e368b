// SPDX-License-Identifier: Apache-2.0
// The option scanner, by the calls that it makes.
#include "utils/getopt.h"

#include "support/support.h"

namespace {

using Words = std::vector<std::string>;

// Writes down each callback as "option=argument@index" and scans something else meanwhile; the
// final one returns 70.
int note(void *arg, qelGetOptState *state) {
    auto &trace = *static_cast<std::string *>(arg);
    char prog[] = "inner", option[] = "-z", *argv[] = {prog, option};
    auto silence = [](void *, qelGetOptState *inner) { return inner->err = 0; };
    EXPECT_EQ(qelGetOpt(2, argv, "z", silence, nullptr), 0);
    bool end = qelGetOpt_opt(state) == QELGETOPT_END;
    trace += end ? "end" : std::string(1, static_cast<char>(qelGetOpt_opt(state)));
    if (const char *value = qelGetOpt_arg(state); value != nullptr)
        trace += std::string("=") + value;
    trace += "@" + std::to_string(qelGetOpt_ind(state)) + " ";
    state->err = trace.find('s') == std::string::npos;
    return end ? 70 : 0;
}

TEST(GetOpt, ScansAsDescribed) {
    const std::string unknown = "/bin/prog: illegal option -- ";
    const std::tuple<Words, const char *, std::string, std::string> cases[] = {
        {{"-ab", "x", "y"}, "ab:", "a@1 b=x@3 end@3 ", ""},
        {{"-abx", "-a", "y", "-a"}, "ab:", "a@1 b=x@2 a@3 end@3 ", ""},
        {{"--verbose", "-a"}, "ab:", "end@2 ", ""},
        {{"-b", "--"}, "ab:", "b=--@3 end@3 ", ""},
        {{"-b"}, "ab:", "?@2 end@2 ", "/bin/prog: option requires an argument -- b\n"},
        {{"-b"}, ":ab:", ":@2 end@2 ", ""},
        {{"-xa", "-:"}, "a", "?@1 a@2 ?@3 end@3 ", unknown + "x\n" + unknown + ":\n"},
        {{"-sxb"}, "sb:", "s@1 ?@1 ?@2 end@2 ", ""},  // silenced
        {{"-xa"}, ":a", "?@1 a@2 end@2 ", ""},
        {{"-", "-a"}, "a", "end@1 ", ""},
        {{"-", "-a"}, "a-", "-@2 a@3 end@3 ", ""},
        {{"-a-", "-a"}, "a", "a@1 end@1 ", ""},
        {{""}, "a", "end@1 ", ""}};
    for (auto [words, letters, expected, messages] : cases) {
        std::string trace, program = "/bin/prog";
        std::vector<char *> argv{program.data()};
        for (std::string &word : words)
            argv.push_back(word.data());
        auto scan = [&, known = letters] {
            EXPECT_EQ(qelGetOpt(static_cast<int>(argv.size()), argv.data(), known, note, &trace),
                      70);
        };
        EXPECT_EQ(support::captured(2, scan), messages);
        EXPECT_EQ(trace, expected);
    }
    EXPECT_EQ(qelGetOpt(0, nullptr, "a", nullptr, nullptr), -1);
}

}  // namespace
