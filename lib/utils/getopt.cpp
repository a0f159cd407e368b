// SPDX-License-Identifier: Apache-2.0
// The option scanner. Its whole state is the record on its own stack that the callback sees.
#include "utils/getopt.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

static_assert(offsetof(qelGetOptState, ind) == 4 && offsetof(qelGetOptState, opt) == 8);
static_assert(sizeof(void *) != 4 ||
              (offsetof(qelGetOptState, arg) == 12 && offsetof(qelGetOptState, place) == 16 &&
               sizeof(qelGetOptState) == 20));

namespace utils {
namespace {

struct Scan {
    int argc;
    char **argv;
    const char *letters;
    qelGetOptState state;

    const char *program() const { return argc > 0 && argv[0] != nullptr ? argv[0] : ""; }
    bool quiet_about_missing() const { return letters[0] == ':'; }
    char *current() const { return state.ind < argc ? argv[state.ind] : nullptr; }
};

// Goes into the next argument; false when there is no further option.
bool enter_argument(Scan &scan) {
    char *argument = scan.current();
    if (argument == nullptr || argument[0] != '-')
        return false;
    // Kept: every argument that begins with two dashes ends the options.
    if (argument[1] == '-') {
        ++scan.state.ind;
        return false;
    }
    // A single '-' is an option character of its own.
    scan.state.place = argument[1] != '\0' ? argument + 1 : argument;
    return true;
}

int unknown_letter(Scan &scan, int letter) {
    if (letter == '-')
        return QELGETOPT_END;
    if (*scan.state.place == '\0')
        ++scan.state.ind;
    if (scan.state.err != 0 && !scan.quiet_about_missing())
        fprintf(stderr, "%s: illegal option -- %c\n", scan.program(), letter);
    return QELGETOPT_UNKNOWN;
}

// The argument of `letter`: the rest of the cluster, or the next word.
int take_argument(Scan &scan, int letter) {
    qelGetOptState &state = scan.state;
    char *rest = state.place;
    state.place = rest + strlen(rest);
    if (*rest == '\0') {
        ++state.ind;
        rest = scan.current();
        if (rest == nullptr) {
            if (scan.quiet_about_missing())
                return QELGETOPT_MISSING;
            if (state.err != 0)
                fprintf(stderr, "%s: option requires an argument -- %c\n", scan.program(), letter);
            return QELGETOPT_UNKNOWN;
        }
    }
    state.arg = rest;
    ++state.ind;
    return letter;
}

// One option, or QELGETOPT_END.
int step(Scan &scan) {
    qelGetOptState &state = scan.state;
    state.arg = nullptr;
    if (*state.place == '\0' && !enter_argument(scan))
        return QELGETOPT_END;
    int letter = static_cast<unsigned char>(*state.place++);
    const char *known = letter != ':' ? strchr(scan.letters, letter) : nullptr;
    if (known == nullptr)
        return unknown_letter(scan, letter);
    if (known[1] == ':')
        return take_argument(scan, letter);
    if (*state.place == '\0')
        ++state.ind;
    return letter;
}

}  // namespace
}  // namespace utils

using namespace utils;

int qelGetOpt(int argc, char **argv, const char *optstring, qelGetOptCallback callback,
              void *cbArg) {
    if (callback == nullptr)
        return UTILS_ERROR;
    char nothing = '\0';
    Scan scan{argv != nullptr ? argc : 0, argv, optstring != nullptr ? optstring : "",
              qelGetOptState{1, 1, 0, nullptr, &nothing}};
    for (;;) {
        scan.state.opt = step(scan);
        int result = callback(cbArg, &scan.state);
        if (scan.state.opt == QELGETOPT_END)
            return result;
    }
}

int qelGetOpt_ind(qelGetOptState *state) {
    return state->ind;
}

int qelGetOpt_opt(qelGetOptState *state) {
    return state->opt;
}

char *qelGetOpt_arg(qelGetOptState *state) {
    return state->arg;
}
