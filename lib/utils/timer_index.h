// The index beside the chain of timers: finds a timer's place among many without walking.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace utils {

struct TimerBlock;

// What is kept with each timer.
struct TimerPlace {
    uint64_t position;   // on the chain: differences are sums of deltas, whatever a refresh does
    TimerPlace *before;  // the place of the timer before it on the chain, or null
    TimerBlock *block;   // that holds its entry
};

struct TimerEntry {
    uint64_t position;
    TimerPlace *place;
};

// Entries lie latest first: what fires next leaves from the end, and what is set in front of its
// equals enters there.
struct TimerBlock {
    static constexpr uint32_t kEntries = 64;

    TimerBlock *next;  // of the free blocks
    uint64_t bound;
    uint32_t count;
    TimerEntry entries[kEntries];
};

// A directory of blocks, earliest first, each with a bound: no entry of the block lies before it,
// none of the blocks before it behind it; the first bound is 0. A block that shrinks below 24
// entries joins a neighbour where both fit in 48, so one of two neighbours has 24 or more; that
// limits the blocks that any number of timers can take. They are taken by `reserve` alone: entering
// and leaving neither allocate nor fail.
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

    // Enters a timer in front of all that are not before its position, and notes the one before it.
    void enter(TimerPlace &place) {
        uint64_t position = place.position;
        uint32_t shelf = 0, at = 0;
        TimerBlock *block = nullptr;
        if (shelves_ == 0 || not_before_first(position)) {
            block = first_with_room();
            at = block->count;
        } else {
            shelf = shelf_with_room(position);
            block = directory_[shelf].block;
            at = not_before(*block, position);
        }
        place.before = nullptr;
        TimerEntry *entry = block->entries + at;
        if (at < block->count) {
            place.before = entry->place;
            memmove(entry + 1, entry, (block->count - at) * sizeof(TimerEntry));
        } else if (shelf > 0) {
            place.before = directory_[shelf - 1].block->entries[0].place;
        }
        ++block->count;
        *entry = {position, &place};
        place.block = block;
    }

    void leave(const TimerPlace &place) {
        TimerBlock &block = *place.block;
        uint32_t last = --block.count;
        if (block.entries[last].place != &place) {
            uint32_t at = not_before(block, place.position + 1);
            while (block.entries[at].place != &place)
                ++at;
            TimerEntry *entry = block.entries + at;
            memmove(entry, entry + 1, (last - at) * sizeof(TimerEntry));
        }
        if (last < kSparse && shelves_ > 1)
            tidy(block);
    }

  private:
    static constexpr uint32_t kSparse = 24, kJoined = 48;

    struct Shelf {
        uint64_t bound;
        TimerBlock *block;
    };

    static uint32_t blocks_for(uint32_t timers) { return timers / (kSparse + 1) * 2 + 1; }

    // How many entries of the block lie at the position or behind it.
    static uint32_t not_before(const TimerBlock &block, uint64_t position) {
        const TimerEntry *from = block.entries;
        uint32_t left = block.count;
        for (uint32_t half; left > 1; left -= half) {
            half = left / 2;
            from += from[half - 1].position >= position ? half : 0;
        }
        if (left == 1 && from->position >= position)
            ++from;
        return static_cast<uint32_t>(from - block.entries);
    }

    // The last shelf whose bound is before the position, else the first one.
    uint32_t shelf_for(uint64_t position) const {
        const Shelf *from = directory_;
        for (uint32_t half, left = shelves_; left > 1; left -= half) {
            half = left / 2;
            from += from[half].bound < position ? half : 0;
        }
        return static_cast<uint32_t>(from - directory_);
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

    // What comes first or last of all does not split a full block, but gets one of its own: timers
    // that are set in order leave full blocks behind.
    TimerBlock *first_with_room() {
        TimerBlock *block = shelves_ > 0 ? directory_[0].block : add_shelf(0, 0);
        if (block->count < TimerBlock::kEntries)
            return block;
        put(0, block, least(*block));
        return add_shelf(0, 0);
    }

    uint32_t shelf_with_room(uint64_t position) {
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
        uint32_t shelf = shelf_for(block.bound);
        while (directory_[shelf].block != &block)
            ++shelf;
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
