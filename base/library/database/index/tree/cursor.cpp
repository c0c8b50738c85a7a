// cursor.cpp: the moves of a cursor. An untrusted one finds its place again from its copy of the
// key before it moves; one that holds no copy has nothing to search with and is treated as one on
// an empty index.
//
// A node that cannot be had ends a move as if there were no key in that direction, with last error
// 13 and a failure trace.

#include "database/index.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/runtime.h"
#include "database/index/tree/find.h"
#include "database/index/tree/key.h"
#include "database/index/tree/link.h"
#include "database/index/tree/node.h"
#include "database/index/tree/position.h"
#include "nim/scope.h"

namespace {

// Ends a move without a key in that direction.
int32_t NoKey(IndxCursor* pCursor, int32_t status)
{
    pCursor->result = INDX_RESULT_NO_KEY;
    IndxUpdateCursor(pCursor, nullptr, status);
    return pCursor->result;
}

// Puts the cursor on an entry of a leaf that is at hand. A copy that cannot be made ends the move.
void Land(
    IndxCursor* pCursor, uint32_t tLeaf, const uint8_t** ppLeaf, int32_t position,
    int32_t statusOnFailure)
{
    pCursor->tNode = tLeaf;
    pCursor->position = position;
    const int32_t result = pCursor->result;
    IndxUpdateCursor(pCursor, *ppLeaf, INDX_ON_KEY);
    IndxReleaseNode(ppLeaf, pCursor);
    const bool bWanted = result == INDX_RESULT_FOUND || result == INDX_RESULT_NOT_FOUND;
    if (bWanted && !pCursor->oKey) {
        pCursor->bFailed = TRUE;
        NoKey(pCursor, statusOnFailure);
    }
}

// A leaf; null: damage, already reported.
const uint8_t* ReadLeaf(IndxCursor* pCursor, uint32_t tLeaf)
{
    bool bInMemory = false;
    const uint8_t* pLeaf = IndxReadNode(&bInMemory, pCursor, tLeaf);
    if (pLeaf && NodeIsLeaf(pLeaf))
        return pLeaf;
    IndxReportDamage(pCursor, tLeaf);
    return nullptr;
}

// The outermost leaf of the index, checked to be one: with keys, and nothing behind it in this
// direction. Null: the index is empty, or damage, already reported.
const uint8_t* ReadEndLeaf(IndxCursor* pCursor, uint32_t tLeaf, uint32_t link)
{
    if (tLeaf == INDX_NO_NODE)
        return nullptr;
    const uint8_t* pLeaf = ReadLeaf(pCursor, tLeaf);
    if (!pLeaf || (NodeCount(pLeaf) > 0 && NodeWord(pLeaf, link) == INDX_NO_NODE))
        return pLeaf;
    IndxReportDamage(pCursor, tLeaf);
    return nullptr;
}

// To the first key, or with code 8 to the end.
int32_t GoFirst(IndxCursor* pCursor)
{
    const uint32_t tLeaf = pCursor->oField->roots.tFirstLeaf;
    const uint8_t* pLeaf = ReadEndLeaf(pCursor, tLeaf, INDX_NODE_PREVIOUS);
    if (!pLeaf)
        return NoKey(pCursor, INDX_AT_END);
    pCursor->result = INDX_RESULT_FOUND;
    Land(pCursor, tLeaf, &pLeaf, 0, INDX_AT_END);
    return pCursor->result;
}

// To the last key, or with code 8 to the beginning.
int32_t GoLast(IndxCursor* pCursor)
{
    const uint32_t tLeaf = pCursor->oField->roots.tLastLeaf;
    const uint8_t* pLeaf = ReadEndLeaf(pCursor, tLeaf, INDX_NODE_NEXT);
    if (!pLeaf)
        return NoKey(pCursor, INDX_AT_BEGINNING);
    pCursor->result = INDX_RESULT_FOUND;
    Land(pCursor, tLeaf, &pLeaf, NodeCount(pLeaf) - 1, INDX_AT_BEGINNING);
    return pCursor->result;
}

// The leaf next to the cursor's own, which is given up, and its id. Null: the end of the index, or
// damage, already reported; a link that ends where the index does not is damage, too.
const uint8_t*
ReadLeafBehind(uint32_t* ptLeaf, IndxCursor* pCursor, const uint8_t** ppLeaf, uint32_t link)
{
    *ptLeaf = NodeWord(*ppLeaf, link);
    IndxReleaseNode(ppLeaf, pCursor);
    if (*ptLeaf != INDX_NO_NODE)
        return IndxReadNeighbour(pCursor, pCursor->tNode, *ptLeaf, link);
    if (!IndxIsEndLeaf(pCursor, pCursor->tNode, link))
        IndxReportDamage(pCursor, pCursor->tNode);
    return nullptr;
}

// One entry on from a key. The result code stays what the operation before left.
void StepForward(IndxCursor* pCursor)
{
    uint32_t tLeaf = pCursor->tNode;
    const uint8_t* pLeaf = ReadLeaf(pCursor, tLeaf);
    if (!pLeaf) {
        NoKey(pCursor, INDX_AT_END);
        return;
    }
    INDX_TRACE(
        INDX_DETAIL, "at %ld:%ld, %ld keys in node", pCursor->tNode, pCursor->position,
        NodeCount(pLeaf));
    int32_t position = pCursor->position + 1;
    if (position >= NodeCount(pLeaf)) {
        pLeaf = ReadLeafBehind(&tLeaf, pCursor, &pLeaf, INDX_NODE_NEXT);
        position = 0;
    }
    if (pLeaf)
        Land(pCursor, tLeaf, &pLeaf, position, INDX_AT_END);
    else
        NoKey(pCursor, INDX_AT_END);
}

void StepBack(IndxCursor* pCursor)
{
    uint32_t tLeaf = pCursor->tNode;
    const uint8_t* pLeaf = ReadLeaf(pCursor, tLeaf);
    if (!pLeaf) {
        NoKey(pCursor, INDX_AT_BEGINNING);
        return;
    }
    int32_t position = pCursor->position - 1;
    if (position < 0) {
        pLeaf = ReadLeafBehind(&tLeaf, pCursor, &pLeaf, INDX_NODE_PREVIOUS);
        position = pLeaf ? NodeCount(pLeaf) - 1 : 0;
    }
    if (pLeaf)
        Land(pCursor, tLeaf, &pLeaf, position, INDX_AT_BEGINNING);
    else
        NoKey(pCursor, INDX_AT_BEGINNING);
}

// The key after the cursor's place, by its status.
void MoveForward(IndxCursor* pCursor)
{
    switch (pCursor->status) {
    case INDX_AT_BEGINNING:
        INDX_TRACE(INDX_DETAIL, "Cursor is at beginning of index");
        if (pCursor->oField->roots.tFirstLeaf != INDX_NO_NODE)
            INDX_TRACE(INDX_DETAIL, "Block is apparently valid");
        GoFirst(pCursor);
        break;
    case INDX_AT_END:
        NoKey(pCursor, INDX_AT_END);
        break;
    case INDX_ON_KEY:
        StepForward(pCursor);
        break;
    default:
        pCursor->result = INDX_RESULT_STATUS;
        break;
    }
}

enum class Refound { Exactly, Missed, Damaged };

// Finds an untrusted cursor's place again. Without keys in the index or a copy to search with it
// goes to `statusIfEmpty`, its result code untouched.
Refound FindAgain(IndxCursor* pCursor, int32_t statusIfEmpty)
{
    if (pCursor->oField->roots.tRoot == INDX_NO_NODE || !pCursor->oKey) {
        IndxUpdateCursor(pCursor, nullptr, statusIfEmpty);
        return Refound::Missed;
    }
    // The find lets go of the saved key.
    const HeldObject<IndxKeyInfo> key(static_cast<IndxKeyInfo*>(ObjIncRefCount(pCursor->oKey)));
    bool bDamaged = false;
    const bool bFound = IndxFind(pCursor, key.get(), &bDamaged);
    if (bDamaged)
        return Refound::Damaged;
    return bFound ? Refound::Exactly : Refound::Missed;
}

void TraceStatus(const IndxCursor* pCursor)
{
    INDX_TRACE(
        INDX_DETAIL, "Cursor status %ld at %ld:%ld", pCursor->status, pCursor->tNode,
        pCursor->position);
}

// A cursor that ended without a key must not say that it found one.
int32_t ResultOfKey(IndxCursor* pCursor)
{
    if (pCursor->result == INDX_RESULT_FOUND && !pCursor->oKey)
        pCursor->result = INDX_RESULT_NOT_FOUND;
    return pCursor->result;
}

} // namespace

int32_t IndxNextKey(void* oCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxNextKey(0x%p)", oCursor);
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!pCursor)
        return INDX_RESULT_CURSOR;
    TraceStatus(pCursor);
    pCursor->bFailed = FALSE;
    bool bOnNext = false;
    if (pCursor->status == INDX_UNTRUSTED) {
        const Refound refound = FindAgain(pCursor, INDX_AT_END);
        // The saved key has gone: the find already stands on the key behind it.
        bOnNext = refound == Refound::Missed && pCursor->status != INDX_AT_END;
        INDX_TRACE(INDX_DETAIL, "Cursor was Untrusted, bFound = %s", IndxTruth(bOnNext));
        if (bOnNext) {
            pCursor->status = INDX_ON_KEY;
            pCursor->result = INDX_RESULT_FOUND;
            if (!pCursor->oKey) {
                pCursor->bFailed = TRUE;
                NoKey(pCursor, INDX_AT_END);
            }
        }
    }
    if (!bOnNext)
        MoveForward(pCursor);
    INDX_TRACE(INDX_DETAIL, "%d = IndxNextKey", pCursor->result);
    return pCursor->result;
}

int32_t IndxNextMatchingKey(void* oCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxNextMatchingKey(0x%p)", oCursor);
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!pCursor)
        return INDX_RESULT_CURSOR;
    // Nothing can match the key of a unique index, nor no key at all.
    if (pCursor->oField->bUnique || !pCursor->oKey) {
        pCursor->result = INDX_RESULT_NOT_FOUND;
        return pCursor->result;
    }
    const HeldObject<> value(ObjIncRefCount(pCursor->oKey->oValue));
    TraceStatus(pCursor);
    Refound refound = Refound::Exactly;
    if (pCursor->status == INDX_UNTRUSTED) {
        refound = FindAgain(pCursor, INDX_AT_END);
        INDX_TRACE(
            INDX_DETAIL, "Cursor was Untrusted, bFound = %s",
            IndxTruth(refound == Refound::Missed));
    }
    if (refound == Refound::Exactly) {
        MoveForward(pCursor);
    } else if (refound == Refound::Missed) {
        // A miss counts as moved, whatever the status.
        pCursor->result = INDX_RESULT_FOUND;
    } else {
        NoKey(pCursor, INDX_AT_END);
    }
    if (ResultOfKey(pCursor) != INDX_RESULT_FOUND)
        return pCursor->result;
    const int32_t keyType = pCursor->oField->keyType;
    if (keyType == INDX_KEY_RECORD_ID || keyType == INDX_KEY_FORBIDDEN) {
        INDX_TRACE(INDX_ALWAYS, "Unexpected key type");
        ProcCrash(0);
        pCursor->result = INDX_RESULT_NOT_FOUND;
    } else if (!IndxSameValue(keyType, pCursor->oKey->oValue, value.get())) {
        pCursor->result = INDX_RESULT_NOT_FOUND;
    }
    return pCursor->result;
}

int32_t IndxPreviousKey(void* oCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxPreviousKey(%p)", oCursor);
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!pCursor)
        return INDX_RESULT_CURSOR;
    // Whatever the find's outcome, the step follows: a cursor whose key has gone stands on the key
    // behind it, or at the end, and ends on the key before it.
    if (pCursor->status == INDX_UNTRUSTED &&
        FindAgain(pCursor, INDX_AT_BEGINNING) == Refound::Damaged)
        return NoKey(pCursor, INDX_AT_BEGINNING);
    switch (pCursor->status) {
    case INDX_AT_BEGINNING:
        return NoKey(pCursor, INDX_AT_BEGINNING);
    case INDX_AT_END:
        return GoLast(pCursor);
    case INDX_ON_KEY:
        // The code stays what the find left: 7 when the key had gone.
        StepBack(pCursor);
        break;
    default:
        pCursor->result = INDX_RESULT_STATUS;
        break;
    }
    return pCursor->result;
}

int32_t IndxFirstKey(void* oCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxFirstKey()");
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    return pCursor ? GoFirst(pCursor) : static_cast<int32_t>(INDX_RESULT_CURSOR);
}

int32_t IndxLastKey(void* oCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxLastKey()");
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    return pCursor ? GoLast(pCursor) : static_cast<int32_t>(INDX_RESULT_CURSOR);
}

int32_t IndxCurrentKey(void* oCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxCurrentKey()");
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!pCursor)
        return INDX_RESULT_CURSOR;
    if (pCursor->status != INDX_UNTRUSTED)
        return pCursor->result;
    FindAgain(pCursor, INDX_AT_END);
    return ResultOfKey(pCursor);
}

NimBool IndxCursorBOI(void* oCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxCursorBOI(%p)", oCursor);
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!pCursor)
        return FALSE;
    NoKey(pCursor, INDX_AT_BEGINNING);
    return TRUE;
}

NimBool IndxCursorEOI(void* oCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxCursorEOI(%p)", oCursor);
    IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!pCursor)
        return FALSE;
    NoKey(pCursor, INDX_AT_END);
    return TRUE;
}

uint32_t IndxCursorGetId(uint32_t* pId, void* oCursor)
{
    const IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (pId && pCursor && pCursor->oKey)
        *pId = pCursor->oKey->recordId;
    return 0;
}

NimBool IndxCursorGetOffset(uint32_t* pOffset, void* oCursor)
{
    const IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!pOffset || !pCursor || !pCursor->oKey)
        return FALSE;
    *pOffset = pCursor->oKey->fileOffset;
    return TRUE;
}
