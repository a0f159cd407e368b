// SPDX-License-Identifier: Apache-2.0
// What the sources of libutils-testing share: the record of an interposed function, the verdict
// over a call of it, and the way on to the definition behind ours.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>

#include "utils/testing.h"

namespace utils {

// One function, whatever the number of its forms. Constant-initialised: calls come before any
// constructor.
struct Taken {
    const char *name;
    std::atomic<int> calls{0};                    // since the last reset
    std::atomic<int> turn{0};                     // the same, since it was told to fail
    std::atomic<int> nth{0}, times{0}, error{0};  // 0 times: none fails
    std::atomic<utils_testing_replacement *> instead{nullptr};
};

// A definition of `symbol` behind ours in the order of search.
struct Next {
    const char *symbol;
    std::atomic<void *> address{nullptr};
    void *find();
};

struct Verdict {
    int error;                           // to fail with, or 0
    utils_testing_replacement *instead;  // to be called instead, or null
};

// Whether this thread is in find(), which may allocate.
bool is_finding();
// Whether the calling thread is one whose calls are looked at, and none that a replacement makes.
bool is_watched();
Verdict judge(Taken &taken);

// The calls of this thread are passed on as long as it lives.
class Passing {
  public:
    Passing();
    ~Passing();
    Passing(const Passing &) = delete;
    Passing &operator=(const Passing &) = delete;

  private:
    bool before_;
};

// What a function returns when it fails.
inline int number(int error) {
    return error;
}
inline int minus_one(int error) {
    errno = error;
    return -1;
}
inline unsigned no_user(int error) {
    return static_cast<unsigned>(minus_one(error));
}
inline std::nullptr_t null(int error) {
    errno = error;
    return nullptr;
}
inline void *no_address(int error) {
    errno = error;
    return reinterpret_cast<void *>(-1);
}

// A call of a form: it fails, goes to the replacement, or on to the definition behind ours.
template <auto failed, typename Function>
struct Call;

template <auto failed, typename Result, typename... Parameters>
struct Call<failed, Result(Parameters...)> {
    Taken &taken;
    Next &next;

    Result operator()(Parameters... arguments) const {
        using Function = Result(Parameters...);
        const Verdict verdict = judge(taken);
        if (verdict.error != 0)
            return failed(verdict.error);
        if (verdict.instead != nullptr) {
            Passing passing;
            return reinterpret_cast<Function *>(verdict.instead)(arguments...);
        }
        auto *function = reinterpret_cast<Function *>(next.find());
        return function != nullptr ? function(arguments...) : failed(ENOSYS);
    }
};

// A call that ends what it is given, also when it fails.
template <typename Function>
struct Last;

template <typename Result, typename Parameter>
struct Last<Result(Parameter)> {
    Taken &taken;
    Next &next;

    Result operator()(Parameter ended) const {
        const Verdict verdict = judge(taken);
        auto *instead = reinterpret_cast<Result (*)(Parameter)>(verdict.instead);
        auto *function = reinterpret_cast<Result (*)(Parameter)>(next.find());
        if (instead == nullptr) {
            Result result = function(ended);
            return verdict.error != 0 ? minus_one(verdict.error) : result;
        }
        Passing passing;
        return instead(ended);
    }
};

void reset_clocks();
size_t shortened(int descriptor, size_t size);

}  // namespace utils

// Both tables are put together by the linker.
#define LISTED(type, name, list) \
    static type *const listed_##name __attribute__((section(list), used)) = &name;

// RECORD(name): the record of a function. Its forms follow.
#define RECORD(name)                                \
    static constinit Taken record_##name = {#name}; \
    LISTED(Taken, record_##name, "utils_taken")

#define NEXT(symbol)                              \
    static constinit Next next_##symbol{#symbol}; \
    LISTED(Next, next_##symbol, "utils_next")

// FORM(name, symbol, failed, Result, (parameters), (arguments)): one form of the function. By
// assembler names, since headers may declare it otherwise, give its name to another form, or make a
// macro of it, which no macro in between may expand.
#define FORM(name, symbol, failed, Result, parameters, arguments)                       \
    static constinit Next next_##symbol{#symbol};                                       \
    LISTED(Next, next_##symbol, "utils_next")                                           \
    extern "C" __attribute__((visibility("default")))                                   \
    Result taken_##symbol parameters __asm__(#symbol);                                  \
    Result taken_##symbol parameters {                                                  \
        return Call<failed, Result parameters>{record_##name, next_##symbol} arguments; \
    }

// ENDING(name, Result, (parameters), (arguments)): a function that ends what it is given, also when it fails with -1.
#define ENDING(name, Result, parameters, arguments)                           \
    RECORD(name)                                                              \
    NEXT(name)                                                                \
    extern "C" __attribute__((visibility("default")))                         \
    Result taken_##name parameters __asm__(#name);                            \
    Result taken_##name parameters {                                          \
        return Last<Result parameters>{record_##name, next_##name} arguments; \
    }

// CALL(name, failed, Result, (parameters), (arguments)): a function of one form.
#define CALL(name, failed, Result, parameters, arguments) \
    RECORD(name)                                          \
    FORM(name, name, failed, Result, parameters, arguments)
