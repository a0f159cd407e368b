// SPDX-License-Identifier: Apache-2.0
// Timers beside a std::multimap with a service of the same kind (a mutex, a thread that waits for
// the first due time and is woken when that comes nearer), beside the chain walked from its head,
// and beside libevent and GLib's main loop.
//
// - cancel_set_N: one of N armed timers is stopped and set again, 10 to 20 s ahead.
// - expire_1000: a thousand timers are set, due at once, and fired; one item is one timer.
// - load_N: N armed timers, one of them set again for each message that a worker takes from a queue
//   of 4,096, which its sender keeps full to the brim: the highest rate at which none is refused.
#include "utils/timer.h"

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#ifdef BENCH_LIBEVENT
#include <event2/event.h>
#include <event2/event_struct.h>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif

#include "bench.h"
#include "utils/msgq.h"
#include "utils/timer_r.h"

namespace {

int threads_of_process() {
    int count = 0;
    if (DIR *tasks = opendir("/proc/self/task")) {
        while (readdir(tasks) != nullptr)
            ++count;
        closedir(tasks);
    }
    return count;
}

class Ours {
  public:
    explicit Ours(size_t count) : threads_before_(threads_of_process()), timers_(count) {
        for (timerHandle &t : timers_)
            t = timer_create_r(
                nullptr, [](uintptr_t, uintptr_t) {}, 0, 0);
    }
    // The service's thread ends, too: the engine alone is measured elsewhere. The first ones go
    // first, which no library has to look for.
    ~Ours() {
        std::sort(timers_.begin(), timers_.end(),
                  [](timerHandle a, timerHandle b) { return a->expiry < b->expiry; });
        for (timerHandle t : timers_)
            timer_delete_r(t);
        timer_close_r();
        while (threads_of_process() > threads_before_)
            std::this_thread::yield();
    }
    void set(size_t i, uint32_t ms) { timer_set_r(timers_[i], ms); }
    void cancel(size_t i) { timer_cancel_r(timers_[i]); }

  private:
    int threads_before_;
    std::vector<timerHandle> timers_;
};

class Multimap {
  public:
    explicit Multimap(size_t count) : timers_(count, due_.end()), service_([this] { serve(); }) {}
    ~Multimap() {
        {
            std::lock_guard lock(mutex_);
            running_ = false;
        }
        nearer_.notify_one();
        service_.join();
    }
    void set(size_t i, uint32_t ms) {
        std::unique_lock lock(mutex_);
        if (timers_[i] != due_.end())
            due_.erase(timers_[i]);
        timers_[i] = due_.emplace(Clock::now() + std::chrono::milliseconds(ms), i);
        bool first = timers_[i] == due_.begin();
        lock.unlock();
        if (first)
            nearer_.notify_one();
    }
    void cancel(size_t i) {
        std::lock_guard lock(mutex_);
        due_.erase(timers_[i]);
        timers_[i] = due_.end();
    }

  private:
    using Clock = std::chrono::steady_clock;

    void serve() {
        std::unique_lock lock(mutex_);
        while (running_) {
            if (due_.empty()) {
                nearer_.wait(lock);
            } else if (due_.begin()->first > Clock::now()) {
                nearer_.wait_until(lock, due_.begin()->first);
            } else {
                timers_[due_.begin()->second] = due_.end();
                due_.erase(due_.begin());
            }
        }
    }

    std::mutex mutex_;
    std::condition_variable nearer_;
    bool running_ = true;
    std::multimap<Clock::time_point, size_t> due_;
    std::vector<std::multimap<Clock::time_point, size_t>::iterator> timers_;
    std::thread service_;
};

// The delta chain without its index: each place is found from the head.
class Walk {
  public:
    explicit Walk(size_t count) : timers_(count) {}
    void set(size_t i, uint32_t ms) {
        std::lock_guard lock(mutex_);
        refresh();
        Timer *t = &timers_[i];
        t->delta = ms;
        t->expiry = now() + ms;
        Timer **at = &chain_;
        for (; *at != nullptr && (*at)->delta < t->delta; at = &(*at)->next)
            t->delta -= (*at)->delta;
        if (*at != nullptr)
            (*at)->delta -= t->delta;
        t->next = *at;
        *at = t;
    }
    void cancel(size_t i) {
        std::lock_guard lock(mutex_);
        refresh();
        Timer *t = &timers_[i];
        Timer **at = &chain_;
        while (*at != t)
            at = &(*at)->next;
        if (t->next != nullptr)
            t->next->delta += t->delta;
        *at = t->next;
    }

  private:
    struct Timer {
        Timer *next;
        uint32_t delta, expiry;
        char others[144];  // as far apart as ours
    };
    static uint32_t now() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint32_t>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
    }
    void refresh() {
        if (chain_ != nullptr)
            chain_->delta = chain_->expiry - now();
    }

    std::mutex mutex_;
    Timer *chain_ = nullptr;
    std::vector<Timer> timers_;
};

std::vector<uint32_t> times(size_t count) {
    std::mt19937 random(1);
    std::vector<uint32_t> ms(count);
    for (uint32_t &t : ms)
        t = 10000 + static_cast<uint32_t>(random() % 10000);
    return ms;
}

template <typename Timers>
void cancel_and_set(benchmark::State &state) {
    auto count = static_cast<size_t>(state.range(0));
    const std::vector<uint32_t> ms = times(std::max<size_t>(count, 65537));
    std::vector<size_t> order(count);
    for (size_t i = 0; i < count; ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(2));
    Timers timers(count);
    // From the latest to the earliest, so that the walk gets ready in time.
    std::vector<uint32_t> first(ms.begin(), ms.begin() + static_cast<ptrdiff_t>(count));
    std::sort(first.rbegin(), first.rend());
    for (size_t i = 0; i < count; ++i)
        timers.set(order[i], first[i]);
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    size_t at = 0, time = 0;
    for (auto _ : state) {
        size_t i = order[at];
        timers.cancel(i);
        timers.set(i, ms[time]);
        at = at + 1 < count ? at + 1 : 0;
        time = time + 1 < ms.size() ? time + 1 : 0;
    }
}

constexpr size_t kExpiring = 1000;
size_t expired = 0;

void expire_ours(benchmark::State &state) {
    std::vector<timerHandle> timers(kExpiring);
    for (timerHandle &t : timers)
        t = timer_create([](uintptr_t, uintptr_t) { ++expired; }, 0, 0);
    for (auto _ : state) {
        for (timerHandle t : timers)
            timer_set(t, 0);
        expired = 0;
        timer_callback();
        if (expired != kExpiring)
            state.SkipWithError("not all timers fired");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kExpiring));
    for (timerHandle t : timers)
        timer_delete(t);
}

#ifdef BENCH_LIBEVENT
void expire_libevent(benchmark::State &state) {
    event_base *base = event_base_new();
    std::vector<event> timers(kExpiring);
    for (event &t : timers)
        evtimer_assign(
            &t, base, [](evutil_socket_t, short, void *) { ++expired; }, nullptr);
    timeval at_once{};
    for (auto _ : state) {
        for (event &t : timers)
            evtimer_add(&t, &at_once);
        expired = 0;
        event_base_loop(base, EVLOOP_ONCE);
        if (expired != kExpiring)
            state.SkipWithError("not all timers fired");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kExpiring));
    event_base_free(base);
}
#endif

constexpr uint32_t kQueueLength = 4096, kAgeMs = 60000;

// Peers with an ageing timer each, and a worker that sets the timer of each message's peer again.
class OursLoad {
  public:
    explicit OursLoad(size_t peers)
        : timers_(peers),
          peers_(peers),
          queue_(msgQCreate(kQueueLength, sizeof(size_t), 0, "load")) {
        for (size_t i = 0; i < peers; ++i)
            timers_.set(i, kAgeMs);
        worker_ = std::thread([this] { work(); });
    }
    ~OursLoad() {
        while (!send(peers_))
            std::this_thread::yield();
        worker_.join();
        msgQDelete(queue_);
    }
    bool send(size_t peer) { return msgQSend(queue_, &peer, sizeof peer) == 0; }
    uint32_t done() const { return done_.load(std::memory_order_acquire); }

  private:
    void work() {
        for (size_t peer = 0; peer < peers_;) {
            if (msgQReceive(queue_, &peer, sizeof peer, UTILS_WAIT_FOREVER) != 0 || peer == peers_)
                continue;
            timers_.set(peer, kAgeMs);
            done_.store(done_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        }
    }

    Ours timers_;
    size_t peers_;
    msgQHandle queue_;
    std::atomic<uint32_t> done_{0};
    std::thread worker_;
};

#ifdef BENCH_GLIB
// A main loop with a source for each timer, and one that takes whatever its queue holds.
class GlibLoad {
  public:
    explicit GlibLoad(size_t peers) : timers_(peers) {
        static GSourceFuncs kinds = {prepare, check, dispatch, nullptr, nullptr, nullptr};
        source_ = reinterpret_cast<QueueSource *>(g_source_new(&kinds, sizeof(QueueSource)));
        source_->load = this;
        g_source_attach(&source_->source, context_);
        for (GSource *&t : timers_) {
            t = g_timeout_source_new(kAgeMs);
            g_source_set_callback(
                t, [](gpointer) -> gboolean { return TRUE; }, nullptr, nullptr);
            g_source_attach(t, context_);
        }
        worker_ = std::thread([this] { g_main_loop_run(loop_); });
    }
    ~GlibLoad() {
        g_main_loop_quit(loop_);
        worker_.join();
        for (GSource *t : timers_) {
            g_source_destroy(t);
            g_source_unref(t);
        }
        g_source_destroy(&source_->source);
        g_source_unref(&source_->source);
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
        g_async_queue_unref(queue_);
    }
    bool send(size_t peer) {
        if (g_async_queue_length(queue_) >= static_cast<int>(kQueueLength))
            return false;
        g_async_queue_push(queue_, GSIZE_TO_POINTER(peer + 1));
        g_main_context_wakeup(context_);
        return true;
    }
    uint32_t done() const { return done_.load(std::memory_order_acquire); }

  private:
    struct QueueSource {
        GSource source;
        GlibLoad *load;
    };
    static GlibLoad *load_of(GSource *source) {
        return reinterpret_cast<QueueSource *>(source)->load;
    }
    static gboolean check(GSource *source) {
        return g_async_queue_length(load_of(source)->queue_) > 0;
    }
    static gboolean prepare(GSource *source, int *timeout) {
        *timeout = -1;
        return check(source);
    }
    static gboolean dispatch(GSource *source, GSourceFunc, gpointer) {
        GlibLoad *load = load_of(source);
        while (gpointer peer = g_async_queue_try_pop(load->queue_)) {
            g_source_set_ready_time(load->timers_[GPOINTER_TO_SIZE(peer) - 1],
                                    g_get_monotonic_time() + int64_t{kAgeMs} * 1000);
            load->done_.store(load->done_.load(std::memory_order_relaxed) + 1,
                              std::memory_order_release);
        }
        return TRUE;
    }

    GMainContext *context_ = g_main_context_new();
    GMainLoop *loop_ = g_main_loop_new(context_, FALSE);
    GAsyncQueue *queue_ = g_async_queue_new();
    QueueSource *source_;
    std::vector<GSource *> timers_;
    std::atomic<uint32_t> done_{0};
    std::thread worker_;
};
#endif

// Messages refused by a worker that 50,000 a second are sent to.
template <typename Load>
int refused_at_a_steady_rate(Load &load, size_t peers) {
    constexpr int kMessages = 2 * kQueueLength;
    auto begin = std::chrono::steady_clock::now();
    int refused = 0;
    for (int i = 0; i < kMessages; ++i) {
        while (std::chrono::steady_clock::now() - begin < std::chrono::microseconds(20) * i)
            std::this_thread::yield();
        refused += load.send(static_cast<size_t>(i) * 7919 % peers) ? 0 : 1;
    }
    return refused;
}

template <typename Load>
void load(benchmark::State &state) {
    bench::Unpinned unpinned;
    auto peers = static_cast<size_t>(state.range(0));
    Load load(peers);
    uint32_t sent = 0;
    for (auto _ : state) {
        for (uint32_t end = sent + kQueueLength; sent != end; ++sent) {
            while (sent - load.done() >= kQueueLength)
                std::this_thread::yield();
            load.send(sent * size_t{7919} % peers);
        }
    }
    while (load.done() != sent)
        std::this_thread::yield();
    state.SetItemsProcessed(sent);
    state.counters["refused"] = refused_at_a_steady_rate(load, peers);
}

void prepare() {
    struct {
        const char *group;
        int64_t live;
    } groups[] = {{"cancel_set_10", 10},
                  {"cancel_set_1000", 1000},
                  {"cancel_set_10000", 10000},
                  {"cancel_set_100000", 100000}};
    for (auto [group, live] : groups) {
        auto add = [&, name = std::string(group), count = live](const char *side, auto function) {
            benchmark::RegisterBenchmark((name + side).c_str(), function)->Arg(count);
        };
        add("/ours", cancel_and_set<Ours>);
        add("/std", cancel_and_set<Multimap>);
        if (live >
            10)  // with few timers it would be measured without a service's share of the work
            add("/walk", cancel_and_set<Walk>);
    }
    benchmark::RegisterBenchmark("expire_1000/ours", expire_ours);
#ifdef BENCH_LIBEVENT
    benchmark::RegisterBenchmark("expire_1000/libevent", expire_libevent);
#endif
    for (int64_t live : {10000, 100000}) {
        std::string group = "load_" + std::to_string(live);
        benchmark::RegisterBenchmark((group + "/ours").c_str(), load<OursLoad>)
            ->Arg(live)
            ->UseRealTime();
#ifdef BENCH_GLIB
        benchmark::RegisterBenchmark((group + "/glib").c_str(), load<GlibLoad>)
            ->Arg(live)
            ->UseRealTime();
#endif
    }
}

}  // namespace

BENCH_MAIN(prepare)
