// SPDX-License-Identifier: Apache-2.0
// The timer engine: one delta chain, ordered by due time, and a pass that fires what is due. The
// first timer's delta counts from the last refresh, every other one's from its predecessor. A timer
// finds its place through an index, by the sum of the deltas up to it. A due time would not do: a
// refresh that cuts the first delta to 0 shifts all timers that are set after it. Nothing here
// locks; the service in timer_r serialises the calls.
#include "utils/timer.h"

#include <cstddef>
#include <cstdlib>

#include "base/heap.h"
#include "time_base.h"
#include "timer_index.h"
#include "timer_pass.h"
#include "utils/platform/context.h"

static_assert(sizeof(void *) != 4 || sizeof(timer) == 52);
static_assert(sizeof(void *) != 4 ||
              (offsetof(timer, state) == 8 && offsetof(timer, expiry) == 20 &&
               offsetof(timer, flags) == 36 && offsetof(timer, magicTail) == 48));
static_assert(offsetof(timer, state) < offsetof(timer, handler) &&
              offsetof(timer, arg2) < offsetof(timer, ulhArg) &&
              offsetof(timer, ulhFn) < offsetof(timer, magicTail));

namespace utils {
namespace {

// Kept: a timer that is due within 50 ms fires in this pass.
constexpr int32_t kDueWithinMs = 49;
constexpr unsigned kContextMax = 256;

timer *chain = nullptr;
uint32_t live_timers = 0;
TimerIndex timer_index;
uint64_t origin = uint64_t{1} << 62;  // the position of the last refresh
size_t place_offset = 0;  // from a timer to its place, behind its context; the same for all of them

bool valid(const timer *t) {
    return t != nullptr && t->magicHead == TIMER_MAGIC_HEAD && t->magicTail == TIMER_MAGIC_TAIL;
}

unsigned char *context_of(timer *t) {
    return reinterpret_cast<unsigned char *>(t + 1);
}

TimerPlace *place_of(timer *t) {
    void *place = reinterpret_cast<unsigned char *>(t) + place_offset;  // aligned, see below
    return static_cast<TimerPlace *>(place);
}

timer *timer_at(TimerPlace *place) {
    void *t = reinterpret_cast<unsigned char *>(place) - place_offset;
    return static_cast<timer *>(t);
}

size_t aligned_for_place(size_t bytes) {
    return (bytes + alignof(TimerPlace) - 1) / alignof(TimerPlace) * alignof(TimerPlace);
}

// Counts the first timer's delta from `now`; less than 50 ms counts as due.
void refresh(uint32_t now) {
    if (chain == nullptr)
        return;
    uint32_t before = chain->delta;
    uint32_t remaining = chain->expiry - now;
    chain->delta = static_cast<int32_t>(remaining) <= kDueWithinMs ? 0 : remaining;
    origin += uint64_t{before} - chain->delta;
}

timer *&link_behind(const TimerEntry &before) {
    return before.place != nullptr ? timer_at(before.place)->next : chain;
}

// Links a timer in behind all that fall due before it, by its delta from the last refresh.
void insert(timer *t) {
    uint64_t position = origin + t->delta;
    TimerEntry before = timer_index.enter(*place_of(t), position);
    timer *&link = link_behind(before);
    if (before.place != nullptr)
        t->delta = static_cast<uint32_t>(position - before.position);
    if (link != nullptr)
        link->delta -= t->delta;
    t->next = link;
    link = t;
}

void remove(timer *t) {
    timer *&link = link_behind(timer_index.leave(*place_of(t)));
    if (t->next != nullptr)
        t->next->delta += t->delta;
    link = t->next;
    t->next = nullptr;
}

void make_idle(timer *t) {
    t->state = TIMER_IDLE;
    t->period = 0;
    t->delta = 0;
}

// One block a timer: the record, the creator's context, its place in the index.
timer *create(timerHandler handler, uintptr_t arg1, uintptr_t arg2, uint32_t flags) {
    unsigned context_size = sizeof_geps();
    if (context_size > kContextMax || !timer_index.reserve(live_timers + 1))
        return nullptr;
    place_offset = aligned_for_place(sizeof(timer) + context_size);
    auto *t = allocate_zeroed<timer>(place_offset - sizeof(timer) + sizeof(TimerPlace));
    if (t == nullptr)
        return nullptr;
    ep_context(nullptr, context_of(t));
    t->magicHead = TIMER_MAGIC_HEAD;
    t->magicTail = TIMER_MAGIC_TAIL;
    t->state = TIMER_IDLE;
    t->handler = handler;
    t->arg1 = arg1;
    t->arg2 = arg2;
    t->flags = flags;
    ++live_timers;
    return t;
}

// Stops a valid timer. Whether it was armed.
bool stop(timer *t) {
    if (t->state != TIMER_ARMED)
        return false;
    refresh(now_ms());
    remove(t);
    make_idle(t);
    return true;
}

// Calls the handler of a timer that has left the chain, with its context in place of the thread's.
// The record is not touched afterwards: the handler may have deleted it.
void fire(timer *t) {
    alignas(max_align_t) unsigned char previous[kContextMax];
    ep_context(context_of(t), previous);
    if (t->ulhFn != nullptr)
        t->ulhFn(t, t->ulhArg, t->handler, t->arg1, t->arg2);
    else if (t->handler != nullptr)
        t->handler(t->arg1, t->arg2);
    ep_context(previous, nullptr);
}

}  // namespace
}  // namespace utils

using namespace utils;

timerHandle timer_create(timerHandler handler, uintptr_t arg1, uintptr_t arg2) {
    return create(handler, arg1, arg2, 0);
}

timerHandle timer_create_periodic(timerHandler handler, uintptr_t arg1, uintptr_t arg2) {
    return create(handler, arg1, arg2, TIMER_PERIODIC);
}

int timer_set(timerHandle timer, uint32_t ms) {
    if (!valid(timer))
        return UTILS_ERROR;
    uint32_t now = now_ms();
    if (timer->state == TIMER_ARMED) {
        refresh(now);
        remove(timer);
    }
    timer->delta = ms;
    timer->period = ms;
    timer->state = TIMER_ARMED;
    timer->expiry = now + ms;
    ep_context(nullptr, context_of(timer));
    refresh(now);
    insert(timer);
    return UTILS_OK;
}

int timer_cancel(timerHandle timer) {
    if (!valid(timer))
        return UTILS_ERROR;
    stop(timer);
    return UTILS_OK;
}

int timer_cancelx(timerHandle timer) {
    return valid(timer) && stop(timer) ? UTILS_OK : UTILS_ERROR;
}

int timer_delete(timerHandle timer) {
    if (!valid(timer))
        return UTILS_ERROR;
    stop(timer);
    // Volatile: a stale handle must fail validation, so these words reach the memory for sure.
    *const_cast<volatile uint32_t *>(&timer->magicHead) = ~TIMER_MAGIC_HEAD;
    *const_cast<volatile uint32_t *>(&timer->magicTail) = ~TIMER_MAGIC_TAIL;
    free(timer);
    timer_index.trim(--live_timers);
    return UTILS_OK;
}

int timer_modhandler(timerHandle timer, timerHandler handler) {
    if (!valid(timer))
        abort();
    if (timer->state == TIMER_ARMED)
        return UTILS_ERROR;
    timer->handler = handler;
    return UTILS_OK;
}

int timer_ticking(timerHandle timer) {
    if (!valid(timer))
        abort();
    return timer->state == TIMER_ARMED ? 1 : 0;
}

void timer_setulh(timerHandle timer, uintptr_t ulhArg, timerWrapper wrapper) {
    if (timer == nullptr || wrapper == nullptr)
        abort();
    timer->ulhArg = ulhArg;
    timer->ulhFn = wrapper;
}

timerHandle timer_gethead(void) {
    return chain;
}

int timer_gettimeout(void) {
    if (chain == nullptr)
        return -1;
    refresh(now_ms());
    return static_cast<int>(chain->delta);
}

void timer_callback(void) {
    uint32_t now = now_ms();
    uint32_t epoch = timer_pass_epoch;
    refresh(now);
    while (epoch == timer_pass_epoch && chain != nullptr && chain->delta == 0) {
        timer *due = chain;
        remove(due);
        if ((due->flags & TIMER_PERIODIC) != 0) {
            due->delta = due->period;
            // Kept: a periodic timer drifts by the lateness of each pass.
            due->expiry = now + due->period;
            insert(due);
        } else {
            make_idle(due);
        }
        fire(due);
        refresh(now);
    }
}

void timer_cleanup(void) {
    // What is on the chain is armed, so deleting takes it off. NOLINTNEXTLINE(*-unix.Malloc)
    while (chain != nullptr && timer_delete(chain) == UTILS_OK) {
    }
}
