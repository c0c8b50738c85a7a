// nodesearch.cpp: binary search in one node.
//
// The order of keys: by value, in an index that is not unique then by record id. Record ids and
// 32-bit integers compare by wrapping subtraction, which is no order over more than 2^31:
// 3,000,000,000 comes before 10, 10 before 2,000,000,000, and that before 3,000,000,000. What is
// found, and where a key goes, then depends on which entries are looked at. Files were written by
// halving from (lower + upper) / 2, so only the same path finds their keys and their places again:
// these two halve, always. 64-bit integers and unique ids have a total order, in which any path
// will do, and start where the key would stand if values were spread evenly; between entries of
// equal value the record ids decide, and there, too, only halving is right.

#include "database/index/tree/nodesearch.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "database/index/ground/runtime.h"
#include "database/index/tree/key.h"
#include "database/index/tree/node.h"

namespace {

// Difference as the order takes it: computed unsigned, since signed overflow has no meaning.
int32_t WrappingDifference(uint32_t left, uint32_t right)
{
    return static_cast<int32_t>(left - right);
}

// ---- interpolation ------------------------------------------------------------------------------
//
// Values that are spread evenly lie about as far into the node as they lie between the lowest and
// the highest. A search that starts there touches a few cache lines of a leaf that is in no cache,
// and one that halves a dozen.

// The position `at` of `span` into a node whose last position is `last`.
int32_t Share(uint64_t at, uint64_t span, int32_t last)
{
    if (span == 0)
        return last / 2;
    const int shift =
        std::max(0, static_cast<int>(std::bit_width(span)) - 52); // the product must not overflow
    return static_cast<int32_t>((at >> shift) * static_cast<uint32_t>(last) / (span >> shift));
}

// The same for numbers in their natural order.
int32_t ShareOf(uint64_t value, uint64_t lowest, uint64_t highest, int32_t last)
{
    if (value <= lowest || highest <= lowest)
        return 0;
    return value >= highest ? last : Share(value - lowest, highest - lowest, last);
}

// Signed numbers in the order of unsigned ones.
uint64_t Ordered(int64_t value)
{
    return static_cast<uint64_t>(value) ^ (uint64_t{1} << 63);
}

// The first bytes of a unique id in the order of numbers.
uint64_t Ordered(const uint8_t* pBytes)
{
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i)
        value = value << 8 | pBytes[i];
    return value;
}

// ---- comparisons -------------------------------------------------------------------------------
//
// Each compares a search key's value with that of an entry. False: the entry's value does not lie
// in the node's heap. INTERPOLATES: the values have a total order, and First says where the search
// starts in a node with this last position.

struct NoComparison {
    static constexpr bool TOTAL = false;
    static constexpr bool INTERPOLATES = false;
    bool operator()(int32_t*, const uint8_t*) const { return true; }
};

struct CompareId {
    static constexpr bool TOTAL = false;
    static constexpr bool INTERPOLATES = false;
    uint32_t id;
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        *pResult = WrappingDifference(id, EntryId(pEntry));
        return true;
    }
};

struct CompareInteger {
    static constexpr bool TOTAL = false;
    static constexpr bool INTERPOLATES = false;
    uint32_t value;
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        *pResult = WrappingDifference(value, GetU32(pEntry + INDX_ENTRY_VALUE));
        return true;
    }
};

struct CompareInt64 {
    static constexpr bool TOTAL = true;
    static constexpr bool INTERPOLATES = true;
    int64_t value;
    int32_t First(const uint8_t* pNode, int32_t last) const
    {
        return ShareOf(
            Ordered(value), Ordered(GetI64(NodeEntry(pNode, 0) + INDX_ENTRY_VALUE)),
            Ordered(GetI64(NodeEntry(pNode, last) + INDX_ENTRY_VALUE)), last);
    }
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        const int64_t other = GetI64(pEntry + INDX_ENTRY_VALUE);
        *pResult = value < other ? -1 : value > other;
        return true;
    }
};

// Values in the heap. `heapUsed` bounds every value of the node.
enum class HeapOrder { Text, TextNoCase, UniqueId };
template <HeapOrder ORDER>
struct CompareHeap {
    static constexpr bool TOTAL = true;
    static constexpr bool INTERPOLATES = ORDER == HeapOrder::UniqueId;
    const char* pValue;
    uint32_t size;
    const uint8_t* pEnd;
    uint32_t heapUsed;
    // The value of an entry; null when it does not lie in the node's heap.
    const uint8_t* ValueOf(const uint8_t* pEntry) const
    {
        const uint32_t length = EntryLength(pEntry);
        const uint32_t offset = EntryHeapOffset(pEntry);
        return length > offset || offset > heapUsed ? nullptr : pEnd - offset;
    }
    int32_t First(const uint8_t* pNode, int32_t last) const
    {
        if constexpr (INTERPOLATES) {
            const uint8_t* pLowest = NodeEntry(pNode, 0);
            const uint8_t* pHighest = NodeEntry(pNode, last);
            const uint8_t* pLowestValue = ValueOf(pLowest);
            const uint8_t* pHighestValue = ValueOf(pHighest);
            if (pLowestValue && pHighestValue && EntryLength(pLowest) == INDX_UNIQUE_ID_SIZE &&
                EntryLength(pHighest) == INDX_UNIQUE_ID_SIZE && size == INDX_UNIQUE_ID_SIZE)
                return ShareOf(
                    Ordered(reinterpret_cast<const uint8_t*>(pValue)), Ordered(pLowestValue),
                    Ordered(pHighestValue), last);
        }
        return last / 2;
    }
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        const uint32_t length = EntryLength(pEntry);
        const auto* pOther = reinterpret_cast<const char*>(ValueOf(pEntry));
        if (!pOther)
            return false;
        if constexpr (ORDER == HeapOrder::Text) {
            *pResult = StrCompareBounded(pValue, size, pOther, length);
        } else if constexpr (ORDER == HeapOrder::TextNoCase) {
            *pResult = StrCompareBoundedNoCase(pValue, size, pOther, length);
        } else {
            if (length != INDX_UNIQUE_ID_SIZE || size != INDX_UNIQUE_ID_SIZE)
                return false;
            *pResult = memcmp(pValue, pOther, INDX_UNIQUE_ID_SIZE);
        }
        return true;
    }
};

// ---- the search --------------------------------------------------------------------------------

// The entries that are searched: of a node, or of a node without one of them.
struct Entries {
    const uint8_t* pNode;
    int32_t count;
    int32_t without;
    const uint8_t* At(int32_t index) const
    {
        return NodeEntry(pNode, index < without ? index : index + 1);
    }
};

Entries AllOf(const uint8_t* pNode)
{
    return {pNode, NodeCount(pNode), INT32_MAX};
}

struct Outcome {
    int32_t index;
    int32_t lResult; // of the last comparison: 0 found
};
constexpr Outcome DAMAGED = {INDX_POSITION_DAMAGED, -1};

// The search as files were written by it. The result starts at -1 and is not recomputed for a key
// type without an order of its own, so that such a search ends at position 0.
template <class Compare>
Outcome Halve(const Entries& entries, const IndxKeyInfo* pKey, bool bUnique, const Compare& compare)
{
    int32_t lower = 0;
    int32_t upper = entries.count - 1;
    int32_t lResult = -1;
    while (upper >= lower) {
        const int32_t index = (lower + upper) / 2;
        const uint8_t* pEntry = entries.At(index);
        if (!compare(&lResult, pEntry))
            return DAMAGED;
        if (lResult == 0 && !bUnique) {
            INDX_TRACE(INDX_DETAIL, "Compare keys %ld and %ld", pKey->recordId, EntryId(pEntry));
            lResult = WrappingDifference(pKey->recordId, EntryId(pEntry));
        }
        if (lResult == 0)
            return {index, 0};
        if (lResult < 0)
            upper = index - 1;
        else
            lower = index + 1;
    }
    return {lower, lResult};
}

// Where to look next. From a guess the search gallops, in growing steps as long as they all lead
// the same way, since the guess will not be far off; then it halves.
class Gallop {
  public:
    // After the comparison at `index` has narrowed what is left down to [lower, upper].
    int32_t Next(int32_t index, int32_t lower, int32_t upper, int32_t lResult)
    {
        const int32_t direction = lResult < 0 ? -1 : 1;
        const int32_t left = lResult < 0 ? index - lower : upper - index;
        const bool bGoesOn = direction_ == 0 || direction_ == direction;
        direction_ = direction;
        if (reach_ == 0 || !bGoesOn || left <= reach_) {
            reach_ = 0;
            return (lower + upper) / 2;
        }
        const int32_t next = index + direction * reach_;
        reach_ *= 4;
        return next;
    }

  private:
    static constexpr int32_t FIRST_REACH = 8;
    int32_t reach_ = FIRST_REACH; // 0: the search halves
    int32_t direction_ = 0;
};

// Whether the entry at an index has a neighbour whose value compares equal to the key as well.
template <class Compare>
bool HasEqualNeighbour(const Entries& entries, int32_t index, const Compare& compare)
{
    for (const int32_t neighbour : {index - 1, index + 1}) {
        int32_t lResult = 0;
        if (neighbour >= 0 && neighbour < entries.count &&
            (!compare(&lResult, entries.At(neighbour)) || lResult == 0))
            return true;
    }
    return false;
}

// The search in a total order of values. An entry of equal value ends it: where it is the only one,
// the record ids say on which side of it the key belongs, whatever the path; among several, halving
// does.
template <class Compare>
Outcome
Interpolate(const Entries& entries, const IndxKeyInfo* pKey, bool bUnique, const Compare& compare)
{
    int32_t lower = 0;
    int32_t upper = entries.count - 1;
    int32_t lResult = -1;
    Gallop gallop;
    int32_t index = compare.First(entries.pNode, upper);
    while (upper >= lower) {
        const uint8_t* pEntry = entries.At(index);
        if (!compare(&lResult, pEntry))
            return DAMAGED;
        if (lResult == 0) {
            if (bUnique)
                return {index, 0};
            if (HasEqualNeighbour(entries, index, compare))
                return Halve(entries, pKey, bUnique, compare);
            INDX_TRACE(INDX_DETAIL, "Compare keys %ld and %ld", pKey->recordId, EntryId(pEntry));
            lResult = WrappingDifference(pKey->recordId, EntryId(pEntry));
            return {lResult > 0 ? index + 1 : index, lResult};
        }
        if (lResult < 0)
            upper = index - 1;
        else
            lower = index + 1;
        index = gallop.Next(index, lower, upper, lResult);
    }
    return {lower, lResult};
}

// A search through the entries of a node.
struct Search {
    const Entries& entries;
    const IndxKeyInfo* pKey;
    bool bUnique;

    template <class Compare>
    Outcome operator()(const Compare& compare) const
    {
        constexpr int32_t FEW = 16; // not worth a guess
        if constexpr (Compare::INTERPOLATES) {
            if (entries.count > FEW)
                return Interpolate(entries, pKey, bUnique, compare);
        }
        return Halve(entries, pKey, bUnique, compare);
    }
};

template <HeapOrder ORDER>
CompareHeap<ORDER> InHeap(const uint8_t* pNode, const IndxKeyInfo* pKey)
{
    return {
        KeyBytes(pKey), KeySize(pKey), pNode + INDX_NODE_SIZE,
        IndxHeapBefore(pNode, NodeCount(pNode))};
}

// Runs a search with the comparison of a key type.
template <class Run>
Outcome
WithComparison(int32_t keyType, const uint8_t* pNode, const IndxKeyInfo* pKey, const Run& run)
{
    switch (keyType) {
    case INDX_KEY_RECORD_ID:
        return run(CompareId{pKey->recordId});
    case INDX_KEY_INTEGER:
        return run(CompareInteger{static_cast<uint32_t>(KeyInteger(pKey))});
    case INDX_KEY_INT64:
        return run(CompareInt64{KeyInt64(pKey)});
    case INDX_KEY_TEXT:
        return run(InHeap<HeapOrder::Text>(pNode, pKey));
    case INDX_KEY_TEXT_NO_CASE:
        return run(InHeap<HeapOrder::TextNoCase>(pNode, pKey));
    case INDX_KEY_UNIQUE_ID:
        return run(InHeap<HeapOrder::UniqueId>(pNode, pKey));
    default:
        return run(NoComparison{});
    }
}

} // namespace

bool IndxSearchNode(
    int32_t* pIndex, IndxCursor* pCursor, const uint8_t* pNode, const IndxKeyInfo* pKey)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxSearchNode(%p, %p, %p, %p)", static_cast<void*>(pIndex),
        static_cast<void*>(pCursor), static_cast<void*>(const_cast<uint8_t*>(pNode)),
        static_cast<void*>(const_cast<IndxKeyInfo*>(pKey)));
    const int32_t keyType = pCursor->oField->keyType;
    INDX_TRACE(INDX_DETAIL, "lower %ld upper %ld KeyType %ld", 0, NodeCount(pNode) - 1, keyType);
    const Entries entries = AllOf(pNode);
    const Search search = {entries, pKey, pCursor->oField->bUnique != 0};
    const Outcome outcome = WithComparison(keyType, pNode, pKey, search);
    INDX_TRACE(INDX_DETAIL, "lResult %ld index %ld", outcome.lResult, outcome.index);
    *pIndex = outcome.index;
    return outcome.lResult == 0;
}

namespace {

// Whether an entry that is taken out comes back to its position. In a total order it does, unless
// others of equal value lie beside it, among which the record ids decide; else the search among the
// others shows it.
struct Returns {
    const uint8_t* pLeaf;
    int32_t position;
    const IndxKeyInfo* pKey;
    bool bUnique;

    template <class Compare>
    Outcome operator()(const Compare& compare) const
    {
        if constexpr (Compare::TOTAL) {
            if (bUnique || !HasEqualNeighbour(AllOf(pLeaf), position, compare))
                return {position, 1};
        }
        const Entries others = {pLeaf, NodeCount(pLeaf) - 1, position};
        return Halve(others, pKey, bUnique, compare);
    }
};

} // namespace

bool IndxReturnsToPosition(
    const IndxCursor* pCursor, const uint8_t* pLeaf, int32_t position, const IndxKeyInfo* pKey)
{
    const Returns returns = {pLeaf, position, pKey, pCursor->oField->bUnique != 0};
    const Outcome outcome = WithComparison(pCursor->oField->keyType, pLeaf, pKey, returns);
    return outcome.lResult != 0 && outcome.index == position;
}
