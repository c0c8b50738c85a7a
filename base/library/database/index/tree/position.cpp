// position.cpp: the state of a cursor.
//
// A cursor stands before the first key, behind the last, or on a key, of which it keeps a copy.
// Every key that enters or leaves the index makes the cursors on it untrusted; an untrusted one
// finds its place again from its copy before it moves.

#include "database/index/tree/position.h"

#include "database/index/ground/damage.h"
#include "database/index/ground/runtime.h"
#include "database/index/tree/key.h"
#include "database/index/tree/node.h"
#include "nim/scope.h"

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
        bool bInMemory = false;
        pFetched = IndxReadNode(&bInMemory, pCursor, pCursor->tNode);
        pNode = pFetched;
    }
    if (pNode)
        pCursor->oKey = CopyKey(pCursor, pNode);
    else
        IndxReportDamage(pCursor, pCursor->tNode);
    if (pFetched)
        IndxReleaseNode(&pFetched, pCursor);
    // Without a copy of the key nobody may take the cursor for one that found it.
    if (!pCursor->oKey)
        pCursor->result = INDX_RESULT_NOT_FOUND;
}

namespace {

NimBool MakeUntrusted(void*, void* oCursor)
{
    auto* pCursor = static_cast<IndxCursor*>(oCursor);
    if (pCursor->status == INDX_ON_KEY)
        pCursor->status = INDX_UNTRUSTED;
    return TRUE;
}

} // namespace

void IndxInvalidateCursors(IndxCursor* pCursor)
{
    INDX_TRACE(INDX_DETAIL, "IndxInvalidateCursors(%p)", static_cast<void*>(pCursor));
    ListWalk(pCursor->oField->oCursors, MakeUntrusted, nullptr);
}
