// find.cpp: positioning a cursor on a key: the exported find, and the one that moves use to find an
// untrusted cursor's place again.

#include "database/index/tree/find.h"

#include "database/index.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/runtime.h"
#include "database/index/tree/descend.h"
#include "database/index/tree/key.h"
#include "database/index/tree/link.h"
#include "database/index/tree/node.h"
#include "database/index/tree/position.h"

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
        if (!IndxIsEndLeaf(pCursor, tLeaf, INDX_NODE_NEXT))
            return false;
        IndxUpdateCursor(pCursor, nullptr, INDX_AT_END);
    } else {
        const uint8_t* pNext = IndxReadNeighbour(pCursor, tLeaf, tNext, INDX_NODE_NEXT);
        if (!pNext)
            return false;
        PlaceCursor(pCursor, tNext, pNext, 0);
        IndxReleaseNode(&pNext, pCursor);
    }
    // A search for any record with the value has found the first of them.
    if (pCursor->status == INDX_ON_KEY && pKey->recordId == 0 && pCursor->oKey &&
        IndxSameKeyValue(pCursor->oField->keyType, pCursor->oKey, pKey))
        pCursor->result = INDX_RESULT_FOUND;
    return true;
}

} // namespace

bool IndxFind(IndxCursor* pCursor, const IndxKeyInfo* pKey, bool* pDamaged)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxFind(%p, %p)", static_cast<void*>(pCursor),
        static_cast<void*>(const_cast<IndxKeyInfo*>(pKey)));
    IndxPlace place;
    bool bPlaced = IndxDescend(&place, pCursor, pKey, IndxFor::Reading);
    if (bPlaced && place.bFound) {
        pCursor->result = INDX_RESULT_FOUND;
        PlaceCursor(pCursor, place.tNode, place.pNode, place.position);
    } else if (bPlaced) {
        bPlaced = PlaceBehindMiss(pCursor, place.tNode, place.pNode, place.position, pKey);
        if (!bPlaced)
            IndxReportDamage(pCursor, place.tNode);
    }
    if (bPlaced) {
        IndxReleaseNode(&place.pNode, pCursor);
        return place.bFound;
    }
    pCursor->result = INDX_RESULT_NOT_FOUND;
    IndxUpdateCursor(pCursor, nullptr, INDX_AT_END);
    *pDamaged = true;
    return false;
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
        bool bDamaged = false;
        IndxFind(pCursor, &key, &bDamaged);
    }
    return pCursor->result;
}
