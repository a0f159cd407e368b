// SPDX-License-Identifier: Apache-2.0
// Growable strings beside GString. append: one text into a string that is cleared behind it;
// append_line and appendf: the pieces of a line, one after the other. One operation is one text.
#include "bench.h"

#ifdef BENCH_GLIB
#include <glib.h>
#endif

#include <iterator>

#include "utils/qel_string.h"

namespace {

constexpr int kRoom = 128;
constexpr const char *kText = "port 17 is online at 16G, fabric switch\n";
constexpr const char *kPieces[] = {
    "port ", "17", ": ", "online", ", speed ", "16G", ", name ", "fabric-switch-port-17", "\n"};

struct Ours {
    qelString *string = qelStringInit(kRoom, 0);
    ~Ours() { string->ops->free(string); }
    void clear() { string->ops->clear(string); }
    void append(const char *text) { string->ops->append(string, text); }
    void format(int i) {
        string->ops->appendf(string, "port %d: %s, 0x%x; ", i, "online", 0x1000 + i);
    }
};

#ifdef BENCH_GLIB
struct Glib {
    GString *string = g_string_sized_new(kRoom);
    ~Glib() { g_string_free(string, TRUE); }
    void clear() { g_string_truncate(string, 0); }
    void append(const char *text) { g_string_append(string, text); }
    void format(int i) {
        g_string_append_printf(string, "port %d: %s, 0x%x; ", i, "online", 0x1000 + i);
    }
};
#endif

template <typename String>
void append(benchmark::State &state) {
    String string;
    for (auto _ : state) {
        string.append(kText);
        string.clear();
    }
}

template <typename String>
void append_line(benchmark::State &state) {
    String string;
    for (auto _ : state) {
        for (const char *piece : kPieces)
            string.append(piece);
        string.clear();
    }
    state.SetItemsProcessed(state.iterations() * std::ssize(kPieces));
}

template <typename String>
void appendf(benchmark::State &state) {
    constexpr int kCount = 4;
    String string;
    for (auto _ : state) {
        for (int i = 0; i < kCount; ++i)
            string.format(i);
        string.clear();
    }
    state.SetItemsProcessed(state.iterations() * kCount);
}

BENCHMARK(append<Ours>)->Name("append/ours");
BENCHMARK(append_line<Ours>)->Name("append_line/ours");
BENCHMARK(appendf<Ours>)->Name("appendf/ours");
#ifdef BENCH_GLIB
BENCHMARK(append<Glib>)->Name("append/glib");
BENCHMARK(append_line<Glib>)->Name("append_line/glib");
BENCHMARK(appendf<Glib>)->Name("appendf/glib");
#endif

}  // namespace

BENCH_MAIN(nullptr)
