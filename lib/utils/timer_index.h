// SPDX-License-Identifier: Apache-2.0
// The index beside the chain of timers: finds a timer's place among many without walking.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace utils {

struct TimerBlock;

// What is kept with each timer.
struct TimerPlace {
    TimerBlock *block;  // that holds its entry
};

// A position is the sum of all deltas up to a timer, whatever a refresh does to the first.
struct TimerEntry {
    uint64_t position;
    TimerPlace *place;
};

// Entries lie latest first: what fires next leaves from the end, and what is set in front of its
// equals enters there.
struct TimerBlock {
    static constexpr uint32_t kEntries = 32;

    TimerBlock *next;  // of the free blocks
    uint64_t bound;
    uint32_t count;
    TimerEntry entries[kEntries];
};

// A directory of blocks, earliest first, each with a bound: no entry of the block lies before it,
// none of the blocks before it behind it; the first bound is 0. A block that shrinks below 12
// entries joins a neighbour where both fit in 24, so one of two neighbours has 12 or more; that
// limits the blocks that any number of timers can take. Only the first block, where timers leave
// one by one as they fire, stays until it is empty. Blocks are allocated by `reserve` alone:
// entering and leaving neither allocate nor fail.
class TimerIndex {
  public:
    // Makes room for `timers`; false when memory runs out.
    bool reserve(uint32_t timers) {
        uint32_t wanted = blocks_for(timers);
        if (wanted > room_) {
            auto *grown = static_cast<Shelf *>(realloc(directory_, 2 * wanted * sizeof(Shelf)));
            if (grown == nullptr)
                return false;
            directory_ = grown;
            room_ = 2 * wanted;
        }
        for (; blocks_ < wanted; ++blocks_) {
            auto *block = static_cast<TimerBlock *>(malloc(sizeof(TimerBlock)));
            if (block == nullptr)
                return false;
            give_back(block);
        }
        return true;
    }

    // Frees what `timers` do not need.
    void trim(uint32_t timers) {
        for (uint32_t wanted = blocks_for(timers) + 2; blocks_ > wanted; --blocks_)
            free(take_free());
    }

    // Enters a timer in front of all that are not before its position. Returns the entry before it,
    // which has no place when it is the first one.
    TimerEntry enter(TimerPlace &place, uint64_t position) {
        bool first = shelves_ == 0 || not_before_first(position);
        uint32_t shelf = first ? make_first_room() : make_room(position);
        TimerBlock &block = *directory_[shelf].block;
        uint32_t at = first ? block.count : not_before(block, position);
        TimerEntry *entry = block.entries + at;
        TimerEntry before{};
        if (at < block.count) {
            before = *entry;
            memmove(entry + 1, entry, (block.count - at) * sizeof(TimerEntry));
        } else if (shelf > 0) {
            before = directory_[shelf - 1].block->entries[0];
        }
        ++block.count;
        *entry = {position, &place};
        place.block = &block;
        return before;
    }

    // Takes a timer out. Returns the entry before it.
    TimerEntry leave(const TimerPlace &place) {
        TimerBlock &block = *place.block;
        uint32_t last = --block.count;
        TimerEntry before{};
        if (block.entries[last].place != &place) {
            uint32_t at = 0;
            while (block.entries[at].place != &place)
                ++at;
            TimerEntry *entry = block.entries + at;
            before = entry[1];
            memmove(entry, entry + 1, (last - at) * sizeof(TimerEntry));
        } else if (&block != directory_[0].block) {
            before = directory_[shelf_of(block) - 1].block->entries[0];
        }
        bool front = &block == directory_[0].block;
        if (front ? last == 0 && shelves_ > 1 : last < kSparse)
            tidy(block);
        return before;
    }

  private:
    static constexpr uint32_t kSparse = 12, kJoined = 24;

    struct Shelf {
        uint64_t bound;
        TimerBlock *block;
    };

    static uint32_t blocks_for(uint32_t timers) { return timers / (kSparse + 1) * 2 + 2; }

    // How many entries of the block lie at the position or behind it. Few enough for a plain
    // search: halving them would surprise the processor more often.
    static uint32_t not_before(const TimerBlock &block, uint64_t position) {
        uint32_t found = 0;
        while (found < block.count && block.entries[found].position >= position)
            ++found;
        return found;
    }

    // The last shelf whose bound is before the position, else the first one.
    uint32_t shelf_for(uint64_t position) const {
        const Shelf *from = directory_;
        for (uint32_t half, left = shelves_; left > 1; left -= half) {
            half = left / 2;
            if (from[half].bound < position)
                from += half;
        }
        return static_cast<uint32_t>(from - directory_);
    }

    uint32_t shelf_of(const TimerBlock &block) const {
        uint32_t shelf = &block != directory_[0].block ? shelf_for(block.bound) : 0;
        while (directory_[shelf].block != &block)
            ++shelf;
        return shelf;
    }

    TimerBlock *take_free() {
        TimerBlock *block = free_;
        free_ = block->next;
        return block;
    }

    void give_back(TimerBlock *block) {
        block->next = free_;
        free_ = block;
    }

    void put(uint32_t shelf, TimerBlock *block, uint64_t bound) {
        directory_[shelf] = {bound, block};
        block->bound = bound;
    }

    TimerBlock *add_shelf(uint32_t shelf, uint64_t bound) {
        TimerBlock *block = take_free();
        block->count = 0;
        Shelf *at = directory_ + shelf;
        memmove(at + 1, at, (shelves_++ - shelf) * sizeof(Shelf));
        put(shelf, block, bound);
        return block;
    }

    void drop_shelf(uint32_t shelf) {
        Shelf *at = directory_ + shelf;
        uint64_t bound = at->bound;
        give_back(at->block);
        memmove(at, at + 1, (--shelves_ - shelf) * sizeof(Shelf));
        if (shelf < shelves_)
            put(shelf, at->block, bound);
    }

    static void move_entries(TimerBlock &from, uint32_t first, TimerBlock &to) {
        for (uint32_t i = first; i < from.count; ++i) {
            to.entries[to.count++] = from.entries[i];
            from.entries[i].place->block = &to;
        }
        from.count = first;
    }

    bool not_before_first(uint64_t position) const {
        const TimerBlock &block = *directory_[0].block;
        return block.count == 0 || least(block) >= position;
    }

    static uint64_t least(const TimerBlock &block) {
        return block.entries[block.count - 1].position;
    }

    // Rooms for an entry; both return its shelf. What comes first or last of all does not split a
    // full block, but gets one of its own: timers that are set in order leave full blocks behind.
    uint32_t make_first_room() {
        if (shelves_ > 0 && directory_[0].block->count < TimerBlock::kEntries)
            return 0;
        if (shelves_ > 0)
            put(0, directory_[0].block, least(*directory_[0].block));
        add_shelf(0, 0);
        return 0;
    }

    uint32_t make_room(uint64_t position) {
        uint32_t shelf = shelf_for(position);
        TimerBlock *block = directory_[shelf].block;
        if (block->count < TimerBlock::kEntries)
            return shelf;
        if (shelf + 1 == shelves_ && block->entries[0].position < position) {
            add_shelf(shelves_, position);
            return shelf + 1;
        }
        move_entries(*block, TimerBlock::kEntries / 2, *add_shelf(shelf, block->bound));
        put(shelf + 1, block, least(*block));
        return block->bound < position ? shelf + 1 : shelf;
    }

    bool join(uint32_t earlier) {
        TimerBlock *from = directory_[earlier].block, *to = directory_[earlier + 1].block;
        if (from->count + to->count > kJoined)
            return false;
        move_entries(*from, 0, *to);
        drop_shelf(earlier);
        return true;
    }

    // Drops a block that became empty, or joins a sparse one with a neighbour.
    void tidy(const TimerBlock &block) {
        uint32_t shelf = shelf_of(block);
        if (block.count == 0)
            drop_shelf(shelf);
        else if ((shelf == 0 || !join(shelf - 1)) && shelf + 1 < shelves_)
            join(shelf);
    }

    Shelf *directory_ = nullptr;
    uint32_t shelves_ = 0, room_ = 0;
    TimerBlock *free_ = nullptr;
    uint32_t blocks_ = 0;  // free or on a shelf
};

}  // namespace utils
