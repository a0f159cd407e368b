// SPDX-License-Identifier: Apache-2.0
// Linked lists beside a GQueue and a std::list, each with a mutex: in a list of 100 nodes, one that
// is somewhere in it, and must be looked for, goes to the end.
#include "utils/lst.h"

#include <algorithm>
#include <list>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#ifdef BENCH_GLIB
#include <glib.h>
#endif

#include "bench.h"

namespace {

constexpr size_t kNodes = 100;

struct Element {
    NODE node;
    int payload;
};

class Ours {
  public:
    Ours() { lstInit(&list_); }
    void append(Element *element) { lstAdd(&list_, &element->node); }
    void remove(Element *element) { lstDelete(&list_, &element->node); }

  private:
    LIST list_;
};

#ifdef BENCH_GLIB
class Glib {
  public:
    ~Glib() { g_queue_free(queue_); }
    void append(Element *element) {
        std::lock_guard lock(mutex_);
        g_queue_push_tail(queue_, element);
    }
    void remove(Element *element) {
        std::lock_guard lock(mutex_);
        g_queue_remove(queue_, element);
    }

  private:
    std::mutex mutex_;
    GQueue *queue_ = g_queue_new();
};
#endif

class Standard {
  public:
    void append(Element *element) {
        std::lock_guard lock(mutex_);
        list_.push_back(element);
    }
    void remove(Element *element) {
        std::lock_guard lock(mutex_);
        list_.erase(std::find(list_.begin(), list_.end(), element));
    }

  private:
    std::mutex mutex_;
    std::list<Element *> list_;
};

template <typename List>
void delete_append(benchmark::State &state) {
    std::vector<std::unique_ptr<Element>> elements(kNodes);
    std::mt19937 random(1);
    std::vector<size_t> order(4099);
    std::generate(order.begin(), order.end(), [&] { return random() % kNodes; });
    List list;
    for (auto &element : elements) {
        element = std::make_unique<Element>();
        list.append(element.get());
    }
    size_t at = 0;
    for (auto _ : state) {
        Element *element = elements[order[at]].get();
        list.remove(element);
        list.append(element);
        at = at + 1 < order.size() ? at + 1 : 0;
    }
}

BENCHMARK_TEMPLATE(delete_append, Ours)->Name("delete_append/ours");
#ifdef BENCH_GLIB
BENCHMARK_TEMPLATE(delete_append, Glib)->Name("delete_append/glib");
#endif
BENCHMARK_TEMPLATE(delete_append, Standard)->Name("delete_append/std");

}  // namespace

BENCH_MAIN(nullptr)
