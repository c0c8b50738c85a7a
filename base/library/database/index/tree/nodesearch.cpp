// search.cpp: binary search in one node, the descent from the root to a leaf, the exported find,
// and loading the key found into the cursor.
//
// The order of keys: by value, in an index that is not unique then by record id, both 32-bit
// comparisons by wrapping subtraction. Values more than 2^31 apart thus compare the wrong way
// round; kept, since files written before depend on it.

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>

#include "database/block/blockstore.h"
#include "database/index/tree/key.h"
#include "database/index/tree/node.h"
#include "nim/scope.h"

namespace {

// Difference as the order takes it: computed unsigned, since signed overflow has no meaning.
int32_t WrappingDifference(uint32_t left, uint32_t right)
{
    return static_cast<int32_t>(left - right);
}

// ---- where to look first -----------------------------------------------------------------------
//
// Ids follow each other, numbers and unique ids are often spread evenly: then a key lies about as
// far into the node as its value lies between the lowest and the highest. A search that starts
// there touches a few cache lines of a leaf that is in no cache, and one that halves a dozen.

// The position `at` of `span` into a node whose last position is `last`.
int32_t Share(uint64_t at, uint64_t span, int32_t last)
{
    if (span == 0)
        return last / 2;
    const int shift =
        std::max(0, static_cast<int>(std::bit_width(span)) - 52); // the product must not overflow
    return static_cast<int32_t>((at >> shift) * static_cast<uint32_t>(last) / (span >> shift));
}

// The same for numbers in the order of wrapping subtraction.
int32_t ShareOfWrapping(uint32_t value, uint32_t lowest, uint32_t highest, int32_t last)
{
    const uint32_t at = value - lowest;
    const uint32_t span = highest - lowest;
    if (at <= span)
        return Share(at, span, last);
    return static_cast<int32_t>(at) < 0 ? 0 : last;
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

// Nothing is known of how the values are spread.
struct Unknown {
    static constexpr bool GUESSES = false;
    static int32_t First(const uint8_t*, int32_t last) { return last / 2; }
};

// ---- comparisons -------------------------------------------------------------------------------

// The comparisons of a search key with the entry at a position. False: the entry's value does not
// lie in the node's heap. First: where the search starts, in a node with this last position.
struct NoComparison : Unknown {
    bool operator()(int32_t*, const uint8_t*) const { return true; }
};

struct CompareId {
    static constexpr bool GUESSES = true;
    uint32_t id;
    int32_t First(const uint8_t* pNode, int32_t last) const
    {
        return ShareOfWrapping(
            id, EntryId(NodeEntry(pNode, 0)), EntryId(NodeEntry(pNode, last)), last);
    }
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        *pResult = WrappingDifference(id, EntryId(pEntry));
        return true;
    }
};

struct CompareInteger {
    static constexpr bool GUESSES = true;
    uint32_t value;
    int32_t First(const uint8_t* pNode, int32_t last) const
    {
        return ShareOfWrapping(
            value, GetU32(NodeEntry(pNode, 0) + INDX_ENTRY_VALUE),
            GetU32(NodeEntry(pNode, last) + INDX_ENTRY_VALUE), last);
    }
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        *pResult = WrappingDifference(value, GetU32(pEntry + INDX_ENTRY_VALUE));
        return true;
    }
};

struct CompareInt64 {
    static constexpr bool GUESSES = true;
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
template <HeapOrder order>
struct CompareHeap {
    static constexpr bool GUESSES = order == HeapOrder::UniqueId;
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
        if constexpr (GUESSES) {
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
        if constexpr (order == HeapOrder::Text) {
            *pResult = StrCompareBounded(pValue, size, pOther, length);
        } else if constexpr (order == HeapOrder::TextNoCase) {
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

// Where to look next. From a guess the search goes on in growing steps as long as they all lead the
// same way, since the guess will not be far off; then, or when nothing is known, it halves.
class Steps {
  public:
    explicit Steps(bool bGuessed) : reach_(bGuessed ? FIRST_REACH : 0) {}

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
    int32_t reach_; // 0: the search halves
    int32_t direction_ = 0;
};

// The search itself. The result starts at -1 and is not recomputed for a key type without an order
// of its own, so that such a search ends at position 0.
template <class Compare>
NimBool BinarySearch(
    int32_t* pIndex, const uint8_t* pNode, const IndxKeyInfo* pKey, bool bUnique,
    const Compare& compare)
{
    constexpr int32_t FEW = 16; // not worth a guess
    int32_t lower = 0;
    int32_t upper = NodeCount(pNode) - 1;
    int32_t lResult = -1;
    const bool bGuess = Compare::GUESSES && upper >= FEW;
    Steps steps(bGuess);
    int32_t index = bGuess ? compare.First(pNode, upper) : upper / 2;
    while (upper >= lower) {
        const uint8_t* pEntry = NodeEntry(pNode, index);
        if (!compare(&lResult, pEntry)) {
            *pIndex = INDX_POSITION_DAMAGED;
            return FALSE;
        }
        if (lResult == 0 && !bUnique) {
            INDX_TRACE(INDX_DETAIL, "Compare keys %ld and %ld", pKey->recordId, EntryId(pEntry));
            lResult = WrappingDifference(pKey->recordId, EntryId(pEntry));
        }
        if (lResult == 0)
            break;
        if (lResult < 0)
            upper = index - 1;
        else
            lower = index + 1;
        index = steps.Next(index, lower, upper, lResult);
    }
    if (lResult != 0)
        index = lower;
    INDX_TRACE(INDX_DETAIL, "lResult %ld index %ld", lResult, index);
    *pIndex = index;
    return lResult == 0 ? TRUE : FALSE;
}

template <HeapOrder order>
NimBool HeapSearch(int32_t* pIndex, const uint8_t* pNode, const IndxKeyInfo* pKey, bool bUnique)
{
    const CompareHeap<order> compare{
        KeyBytes(pKey), KeySize(pKey), pNode + INDX_NODE_SIZE,
        IndxHeapBefore(pNode, NodeCount(pNode))};
    return BinarySearch(pIndex, pNode, pKey, bUnique, compare);
}

} // namespace

NimBool
IndxSearchNode(int32_t* pIndex, IndxCursor* pCursor, const uint8_t* pNode, const IndxKeyInfo* pKey)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxSearchNode(%p, %p, %p, %p)", static_cast<void*>(pIndex),
        static_cast<void*>(pCursor), static_cast<void*>(const_cast<uint8_t*>(pNode)),
        static_cast<void*>(const_cast<IndxKeyInfo*>(pKey)));
    const int32_t keyType = pCursor->oField->keyType;
    const bool bUnique = pCursor->oField->bUnique != 0;
    INDX_TRACE(INDX_DETAIL, "lower %ld upper %ld KeyType %ld", 0, NodeCount(pNode) - 1, keyType);
    switch (keyType) {
    case INDX_KEY_RECORD_ID:
        return BinarySearch(pIndex, pNode, pKey, bUnique, CompareId{pKey->recordId});
    case INDX_KEY_INTEGER:
        return BinarySearch(
            pIndex, pNode, pKey, bUnique, CompareInteger{static_cast<uint32_t>(KeyInteger(pKey))});
    case INDX_KEY_INT64:
        return BinarySearch(pIndex, pNode, pKey, bUnique, CompareInt64{KeyInt64(pKey)});
    case INDX_KEY_TEXT:
        return HeapSearch<HeapOrder::Text>(pIndex, pNode, pKey, bUnique);
    case INDX_KEY_TEXT_NO_CASE:
        return HeapSearch<HeapOrder::TextNoCase>(pIndex, pNode, pKey, bUnique);
    case INDX_KEY_UNIQUE_ID:
        return HeapSearch<HeapOrder::UniqueId>(pIndex, pNode, pKey, bUnique);
    default:
        return BinarySearch(pIndex, pNode, pKey, bUnique, NoComparison{});
    }
}

uint32_t IndxChildAt(const uint8_t* pNode, int32_t position)
{
    const int32_t entry = position < 0 ? 0 : position;
    return entry < NodeCount(pNode) ? EntryPointer(NodeEntry(pNode, entry)) : INDX_NO_NODE;
}

namespace {

void PlaceCursor(IndxCursor* pCursor, uint32_t tLeaf, const uint8_t* pLeaf, int32_t position)
{
    pCursor->tNode = tLeaf;
    pCursor->position = position;
    IndxUpdateCursor(pCursor, pLeaf, INDX_ON_KEY);
}

// The key is not in the leaf: the cursor goes to the first greater key, which may be the first of
// the next leaf. False: that leaf cannot be had.
bool PlaceBehindMiss(
    IndxCursor* pCursor, uint32_t tLeaf, const uint8_t* pLeaf, int32_t index,
    const IndxKeyInfo* pKey)
{
    pCursor->result = INDX_RESULT_NOT_FOUND;
    const uint32_t tNext = NodeWord(pLeaf, INDX_NODE_NEXT);
    if (index < NodeCount(pLeaf)) {
        PlaceCursor(pCursor, tLeaf, pLeaf, index);
    } else if (tNext == INDX_NO_NODE) {
        if (!IsEndLeaf(pCursor, tLeaf, INDX_NODE_NEXT))
            return false;
        IndxUpdateCursor(pCursor, nullptr, INDX_AT_END);
    } else {
        const uint8_t* pNext = IndxReadNeighbour(pCursor, tLeaf, tNext, INDX_NODE_NEXT);
        if (!pNext)
            return false;
        PlaceCursor(pCursor, tNext, pNext, 0);
        IndxEndReading(&pNext, pCursor);
    }
    // A search for any record with the value has found the first of them.
    if (pCursor->status == INDX_ON_KEY && pKey->recordId == 0 && pCursor->oKey &&
        IndxSameKeyValue(pCursor->oField->keyType, pCursor->oKey, pKey))
        pCursor->result = INDX_RESULT_FOUND;
    return true;
}

} // namespace

NimBool IndxFind(IndxCursor* pCursor, const IndxKeyInfo* pKey, bool* pDamaged)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxFind(%p, %p)", static_cast<void*>(pCursor),
        static_cast<void*>(const_cast<IndxKeyInfo*>(pKey)));
    uint32_t tNode = pCursor->oField->roots.tRoot;
    const IndxTable* pTable = pCursor->oField->oTable;
    // A tree has no more levels than the file has blocks; a descent that takes more runs in a ring.
    for (uint32_t left = BlckBlockLimit(pTable->oBlck); left > 0; --left) {
        const uint8_t* pNode = IndxReadNode(nullptr, pCursor, tNode);
        if (!pNode)
            break;
        int32_t index = 0;
        const NimBool bFound = IndxSearchNode(&index, pCursor, pNode, pKey);
        if (index == INDX_POSITION_DAMAGED)
            break;
        if (NodeIsLeaf(pNode)) {
            bool bPlaced = true;
            if (bFound) {
                pCursor->result = INDX_RESULT_FOUND;
                PlaceCursor(pCursor, tNode, pNode, index);
            } else {
                bPlaced = PlaceBehindMiss(pCursor, tNode, pNode, index, pKey);
            }
            IndxEndReading(&pNode, pCursor);
            if (!bPlaced)
                break;
            return bFound;
        }
        tNode = IndxChildAt(pNode, bFound ? index : index - 1);
        IndxEndReading(&pNode, pCursor);
    }
    IndxReportDamage(pCursor, tNode);
    pCursor->result = INDX_RESULT_NOT_FOUND;
    IndxUpdateCursor(pCursor, nullptr, INDX_AT_END);
    if (pDamaged)
        *pDamaged = true;
    return FALSE;
}

namespace {

// A copy of the key at the cursor's place in the node; null when it cannot be had.
IndxKeyInfo* CopyKey(IndxCursor* pCursor, const uint8_t* pNode)
{
    const int32_t keyType = pCursor->oField->keyType;
    if (pCursor->position < 0 || pCursor->position >= NodeCount(pNode)) {
        IndxReportDamage(pCursor, pCursor->tNode);
        return nullptr;
    }
    switch (keyType) {
    case INDX_KEY_RECORD_ID:
    case INDX_KEY_INTEGER:
    case INDX_KEY_INT64:
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
    case INDX_KEY_UNIQUE_ID:
        break;
    case INDX_KEY_FORBIDDEN:
        INDX_TRACE(INDX_ALWAYS, "Unexpected field type");
        ProcCrash(0);
        return nullptr;
    default:
        INDX_TRACE(INDX_ALWAYS, "Unknown field type");
        ProcCrash(0);
        return nullptr;
    }
    const uint8_t* pEntry = NodeEntry(pNode, pCursor->position);
    HeldObject<IndxKeyInfo> key;
    if (!IndxNewKeyInfo(key.Out(), keyType, EntryId(pEntry)) ||
        !IndxGetEntryValue(&key->oValue, keyType, pNode, pCursor->position)) {
        IndxReportDamage(pCursor, pCursor->tNode);
        return nullptr;
    }
    key->fileOffset = EntryPointer(pEntry);
    return key.Take();
}

} // namespace

void IndxUpdateCursor(IndxCursor* pCursor, const uint8_t* pNode, int32_t status)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxUpdateCursor(%p, %p, %d)", static_cast<void*>(pCursor),
        static_cast<void*>(const_cast<uint8_t*>(pNode)), status);
    ObjRelease(pCursor->oKey);
    pCursor->status = status;
    if (status != INDX_ON_KEY)
        return;
    if (pCursor->result != INDX_RESULT_FOUND && pCursor->result != INDX_RESULT_NOT_FOUND) {
        INDX_TRACE(INDX_DETAIL, "No record for type %ld", pCursor->result);
        return;
    }
    INDX_TRACE(INDX_DETAIL, "Get key at %ld:%ld", pCursor->tNode, pCursor->position);
    const uint8_t* pFetched = nullptr;
    if (!pNode) {
        pFetched = IndxReadNode(nullptr, pCursor, pCursor->tNode);
        pNode = pFetched;
    }
    if (pNode)
        pCursor->oKey = CopyKey(pCursor, pNode);
    else
        IndxReportDamage(pCursor, pCursor->tNode);
    if (pFetched)
        IndxEndReading(&pFetched, pCursor);
    // Without a copy of the key nobody may take the cursor for one that found it.
    if (!pCursor->oKey)
        pCursor->result = INDX_RESULT_NOT_FOUND;
}

namespace {

// The value of a text search key, its NUL included as in the heap. FALSE with the result code set.
NimBool BorrowText(IndxKeyInfo* pKey, IndxCursor* pCursor, void* oKeyObject)
{
    if (ObjGetMagic(oKeyObject) != OBJ_MAGIC_STRING)
        return FALSE;
    const char* text = ObjGetString(oKeyObject);
    if (StrIsEmpty(text)) {
        pCursor->result = INDX_RESULT_EMPTY_KEY;
        return FALSE;
    }
    const uint32_t size = StrSize(text);
    if (size > pCursor->oField->maximumKey) {
        pCursor->result = INDX_RESULT_LONG_KEY;
        return FALSE;
    }
    pKey->pBorrowed = text;
    pKey->borrowedSize = size;
    return TRUE;
}

// The value of a search key, from the host's key object, which keeps it. FALSE with the result code
// set.
NimBool BorrowFromKeyObject(IndxKeyInfo* pKey, IndxCursor* pCursor, void* oKeyObject)
{
    const uint32_t magic = ObjGetMagic(oKeyObject);
    switch (pCursor->oField->keyType) {
    case INDX_KEY_RECORD_ID:
        return TRUE;
    case INDX_KEY_INTEGER:
    case INDX_KEY_INT64: {
        const bool bInteger = pCursor->oField->keyType == INDX_KEY_INTEGER;
        if (magic != (bInteger ? OBJ_MAGIC_INTEGER : OBJ_MAGIC_INT64))
            return FALSE;
        pKey->oValue = oKeyObject;
        return TRUE;
    }
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
        return BorrowText(pKey, pCursor, oKeyObject);
    case INDX_KEY_UNIQUE_ID:
        if (magic != OBJ_MAGIC_UNIQUE)
            return FALSE;
        pKey->pBorrowed = ObjGetUnique(oKeyObject);
        pKey->borrowedSize = INDX_UNIQUE_ID_SIZE;
        return TRUE;
    default:
        pCursor->result = INDX_RESULT_KEY_TYPE;
        return FALSE;
    }
}

} // namespace

int32_t IndxFindKey(void* oCursor, uint32_t id, void* oKeyObject)
{
    INDX_TRACE(INDX_DETAIL, "IndxFindKey(%p, %ld, %p)", oCursor, id, oKeyObject);
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!pCursor)
        return INDX_RESULT_CURSOR;
    pCursor->result = INDX_RESULT_KEY_OBJECT;
    IndxKeyInfo key = {}; // needed no longer than the key object, whose value it borrows
    key.keyType = pCursor->oField->keyType;
    key.recordId = id;
    if (!BorrowFromKeyObject(&key, pCursor, oKeyObject))
        return pCursor->result;
    if (pCursor->oField->roots.tRoot == INDX_NO_NODE) {
        pCursor->result = INDX_RESULT_NOT_FOUND;
        IndxUpdateCursor(pCursor, nullptr, INDX_AT_END);
    } else {
        IndxFind(pCursor, &key, nullptr);
    }
    return pCursor->result;
}
