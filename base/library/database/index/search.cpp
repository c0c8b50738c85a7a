// search.cpp: binary search in one node, the descent from the root to a leaf, the exported find,
// and loading the key found into the cursor.
//
// The order of keys: by value, in an index that is not unique then by record id, both 32-bit
// comparisons by wrapping subtraction. Values more than 2^31 apart thus compare the wrong way
// round; kept, since files written before depend on it.

#include <cassert>
#include <cstring>

#include "../block_internal.h"
#include "../scope.h"
#include "key.h"
#include "node.h"

namespace {

// Difference as the order takes it: computed unsigned, since signed overflow has no meaning.
int32_t WrappingDifference(uint32_t left, uint32_t right)
{
    return static_cast<int32_t>(left - right);
}

// The comparisons of a search key with the entry at a position. False: the entry's value does not
// lie in the node's heap.
struct NoComparison {
    bool operator()(int32_t*, const uint8_t*) const { return true; }
};

struct CompareId {
    uint32_t id;
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        *pResult = WrappingDifference(id, EntryId(pEntry));
        return true;
    }
};

struct CompareInteger {
    uint32_t value;
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        *pResult = WrappingDifference(value, GetU32(pEntry + INDX_ENTRY_VALUE));
        return true;
    }
};

struct CompareInt64 {
    int64_t value;
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
    const char* pValue;
    uint32_t size;
    const uint8_t* pEnd;
    uint32_t heapUsed;
    bool operator()(int32_t* pResult, const uint8_t* pEntry) const
    {
        const uint32_t length = EntryLength(pEntry);
        const uint32_t offset = EntryHeapOffset(pEntry);
        if (length > offset || offset > heapUsed)
            return false;
        const auto* pOther = reinterpret_cast<const char*>(pEnd - offset);
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

// The search itself. The result starts at -1 and is not recomputed for a key type without an order
// of its own, so that such a search ends at position 0.
template <class Compare>
NimBool BinarySearch(
    int32_t* pIndex, const uint8_t* pNode, const IndxKeyInfo* pKey, bool bUnique,
    const Compare& compare)
{
    int32_t lower = 0;
    int32_t upper = NodeCount(pNode) - 1;
    int32_t lResult = -1;
    int32_t index = 0;
    while (upper >= lower) {
        index = (lower + upper) / 2;
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
    }
    if (lResult > 0)
        ++index;
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
