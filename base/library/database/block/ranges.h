// ranges.h: the dirty ranges of a block: which of its bytes have been declared to change.
//
// A change of a node touches a few places: a word of its header, some entries, some of its heap.
// Each place is kept as it is as long as there is room; then the two that lie closest together
// become one, which writes a few bytes that have not changed and never leaves one out.
#pragma once

#include <cstdint>

struct BlckRange {
    uint16_t from;
    uint16_t to;
};

struct BlckRanges {
    static constexpr uint32_t ROOM = 4;

    uint16_t count;
    BlckRange ranges[ROOM]; // ascending, apart from each other

    // Adds bytes [from, to); from < to.
    void Add(uint32_t from, uint32_t to)
    {
        uint32_t first = 0;
        while (first < count && ranges[first].to < from)
            ++first;
        if (first == count || ranges[first].from > to) {
            Insert(first, from, to);
            return;
        }
        // Touches at least this one: grows it, and swallows those it reaches.
        BlckRange& grown = ranges[first];
        if (from < grown.from)
            grown.from = static_cast<uint16_t>(from);
        if (to <= grown.to)
            return;
        grown.to = static_cast<uint16_t>(to);
        while (first + 1u < count && ranges[first + 1].from <= grown.to) {
            if (ranges[first + 1].to > grown.to)
                grown.to = ranges[first + 1].to;
            Remove(first + 1);
        }
    }

    // Whether every byte of [from, to) has been declared.
    bool Hold(uint32_t from, uint32_t to) const
    {
        for (uint32_t i = 0; i < count; ++i) {
            if (ranges[i].from <= from && to <= ranges[i].to)
                return true;
        }
        return from >= to;
    }

  private:
    void Insert(uint32_t place, uint32_t from, uint32_t to)
    {
        if (count == ROOM) {
            JoinClosest();
            Add(from, to); // there is room now, or a range that it touches
            return;
        }
        for (uint32_t i = count; i > place; --i)
            ranges[i] = ranges[i - 1];
        ranges[place] = {static_cast<uint16_t>(from), static_cast<uint16_t>(to)};
        ++count;
    }
    void Remove(uint32_t place)
    {
        --count;
        for (uint32_t i = place; i < count; ++i)
            ranges[i] = ranges[i + 1];
    }
    void JoinClosest()
    {
        uint32_t closest = 0;
        for (uint32_t i = 1; i + 1u < count; ++i) {
            if (Gap(i) < Gap(closest))
                closest = i;
        }
        ranges[closest].to = ranges[closest + 1].to;
        Remove(closest + 1);
    }
    uint32_t Gap(uint32_t i) const
    {
        return static_cast<uint32_t>(ranges[i + 1].from) - ranges[i].to;
    }
};
