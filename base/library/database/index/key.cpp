// key.cpp: keys on their way between the rooms: taken from an encoded record, taken from a node,
// compared with each other. A key info carries its value as an object of the base services; a key
// of the record id index has none, since the id itself is the key.
//
// Text keys carry their NUL. A value from an inline array need not hold one: texts are compared up
// to their first NUL or their stored length, whichever comes first.

#include <cassert>
#include <cstring>

#include "../scope.h"
#include "node.h"

NimBool IndxNewKeyInfo(IndxKeyInfo** ppKey, int32_t keyType, uint32_t recordId)
{
    *ppKey = nullptr;
    if (!IndxEnsureTemplates())
        return FALSE;
    void* oKey = nullptr;
    if (!ObjTemplateCreateInstanceFromPool(&oKey, gIndxTemplates.keyInfo, IndxPool()))
        return FALSE;
    auto* pKey = static_cast<IndxKeyInfo*>(oKey);
    pKey->keyType = keyType;
    pKey->recordId = recordId;
    *ppKey = pKey;
    return TRUE;
}

namespace {

// Width of a key's slot in the fixed part of a record.
uint32_t SlotWidth(int32_t keyType)
{
    switch (keyType) {
    case INDX_KEY_INTEGER:
        return 4;
    case INDX_KEY_INT64:
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
        return 8;
    case INDX_KEY_UNIQUE_ID:
        return INDX_UNIQUE_ID_SIZE;
    default:
        return 0;
    }
}

// The value of a text slot: length, offset, and the bytes in the variable part. A length that
// passes the end of the record is damage like a negative one.
NimBool
TextFromRecord(void** ppValue, IndxCursor* pCursor, const ObjData* pRecord, const uint8_t* pSlot)
{
    const int32_t length = GetI32(pSlot);
    if (length < 0) {
        pCursor->result = INDX_RESULT_BAD_LENGTH;
        return FALSE;
    }
    if (length == 0) {
        pCursor->result = INDX_RESULT_EMPTY_KEY;
        return FALSE;
    }
    if (static_cast<uint32_t>(length) > pCursor->oField->maximumKey) {
        pCursor->result = INDX_RESULT_LONG_KEY;
        return FALSE;
    }
    const uint32_t offset = GetU32(pSlot + 4);
    if (!BytesInside(offset, static_cast<uint32_t>(length), pRecord->size)) {
        INDX_TRACE(
            INDX_ALWAYS, "Text of %ld bytes at %ld passes the end of a record of %ld bytes", length,
            offset, pRecord->size);
        pCursor->result = INDX_RESULT_BAD_LENGTH;
        return FALSE;
    }
    return ObjDataFieldCreate(
        ppValue, static_cast<const uint8_t*>(pRecord->data) + offset,
        static_cast<uint32_t>(length));
}

// The value in a record's slot, by the type of the index.
NimBool ValueFromRecord(
    void** ppValue, IndxCursor* pCursor, uint32_t id, const ObjData* pRecord, const uint8_t* pSlot)
{
    switch (pCursor->oField->keyType) {
    case INDX_KEY_RECORD_ID:
        INDX_TRACE(INDX_DETAIL, "Id = %ld", id);
        return TRUE;
    case INDX_KEY_INTEGER:
        INDX_TRACE(INDX_DETAIL, "Id = %ld, value = %ld", id, GetI32(pSlot));
        return ObjIntegerCreate(ppValue, GetI32(pSlot));
    case INDX_KEY_INT64:
        INDX_TRACE(INDX_DETAIL, "Id = %ld, value = %I64d", id, GetI64(pSlot));
        return ObjInt64Create(ppValue, GetI64(pSlot));
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE: {
        const NimBool bTaken = TextFromRecord(ppValue, pCursor, pRecord, pSlot);
        if (bTaken) {
            // The data field keeps a NUL behind its bytes.
            INDX_TRACE(
                INDX_DETAIL, "Id = %ld, value = %s", id,
                static_cast<const char*>(ObjGetDataFieldData(*ppValue)));
        }
        return bTaken;
    }
    case INDX_KEY_UNIQUE_ID:
        INDX_TRACE(INDX_DETAIL, "Id = %ld, value = %s", id, UniqueToString(pSlot));
        return ObjDataFieldCreate(ppValue, pSlot, INDX_UNIQUE_ID_SIZE);
    case INDX_KEY_FORBIDDEN:
        pCursor->result = INDX_RESULT_KEY_TYPE;
        ProcCrash(0);
        return FALSE;
    default:
        return FALSE;
    }
}

} // namespace

NimBool IndxGetKeyInfoFromRecord(IndxKeyInfo** ppKey, IndxCursor* pCursor, const ObjData* pRecord)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxGetKeyInfoFromRecord(%p, %p, %p)", static_cast<void*>(ppKey),
        static_cast<void*>(pCursor), static_cast<void*>(const_cast<ObjData*>(pRecord)));
    *ppKey = nullptr;
    const IndxField* pField = pCursor->oField;
    const uint32_t idOffset = pField->oTable->idOffset;
    const auto slotOffset = static_cast<uint32_t>(pField->recordOffset);
    if (!BytesInside(idOffset, 4, pRecord->size) ||
        !BytesInside(slotOffset, SlotWidth(pField->keyType), pRecord->size)) {
        INDX_TRACE(
            INDX_ALWAYS, "A record of %ld bytes is too short for field '%s' of table '%s'",
            pRecord->size, pField->name, pField->oTable->name);
        return FALSE;
    }
    const auto* pBytes = static_cast<const uint8_t*>(pRecord->data);
    const uint32_t id = GetU32(pBytes + idOffset);
    HeldObject<IndxKeyInfo> key;
    if (!IndxNewKeyInfo(key.Out(), pField->keyType, id) ||
        !ValueFromRecord(&key->oValue, pCursor, id, pRecord, pBytes + slotOffset))
        return FALSE;
    *ppKey = key.Take();
    return TRUE;
}

bool IndxHaveSameKey(const IndxField* pField, const ObjData* pLeft, const ObjData* pRight)
{
    const auto offset = static_cast<uint32_t>(pField->recordOffset);
    const uint32_t width = SlotWidth(pField->keyType);
    if (width == 0 && pField->keyType != INDX_KEY_RECORD_ID)
        return false; // no key is made of such a field
    if (!BytesInside(offset, width, pLeft->size) || !BytesInside(offset, width, pRight->size))
        return false;
    const auto* pLeftBytes = static_cast<const uint8_t*>(pLeft->data);
    const auto* pRightBytes = static_cast<const uint8_t*>(pRight->data);
    if (pField->keyType != INDX_KEY_TEXT && pField->keyType != INDX_KEY_TEXT_NO_CASE)
        return memcmp(pLeftBytes + offset, pRightBytes + offset, width) == 0;
    const uint32_t length = GetU32(pLeftBytes + offset);
    const uint32_t leftPlace = GetU32(pLeftBytes + offset + 4);
    const uint32_t rightPlace = GetU32(pRightBytes + offset + 4);
    return length == GetU32(pRightBytes + offset) && BytesInside(leftPlace, length, pLeft->size) &&
           BytesInside(rightPlace, length, pRight->size) &&
           memcmp(pLeftBytes + leftPlace, pRightBytes + rightPlace, length) == 0;
}

bool IndxHeapValue(
    const uint8_t** ppBytes, uint32_t* pLength, const uint8_t* pNode, int32_t position)
{
    const uint8_t* pEntry = NodeEntry(pNode, position);
    const uint32_t offset = EntryHeapOffset(pEntry);
    const uint32_t length = EntryLength(pEntry);
    if (length > offset || offset > IndxHeapBefore(pNode, NodeCount(pNode)))
        return false;
    *ppBytes = pNode + INDX_NODE_SIZE - offset;
    *pLength = length;
    return true;
}

NimBool IndxGetEntryValue(void** ppValue, int32_t keyType, const uint8_t* pNode, int32_t position)
{
    *ppValue = nullptr;
    assert(position >= 0 && position < NodeCount(pNode));
    const uint8_t* pEntry = NodeEntry(pNode, position);
    switch (keyType) {
    case INDX_KEY_INTEGER:
        return ObjIntegerCreate(ppValue, GetI32(pEntry + INDX_ENTRY_VALUE));
    case INDX_KEY_INT64:
        return ObjInt64Create(ppValue, GetI64(pEntry + INDX_ENTRY_VALUE));
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
    case INDX_KEY_UNIQUE_ID: {
        const uint8_t* pBytes = nullptr;
        uint32_t length = 0;
        if (!IndxHeapValue(&pBytes, &length, pNode, position))
            return FALSE;
        return ObjDataFieldCreate(ppValue, pBytes, length);
    }
    default:
        return TRUE;
    }
}

NimBool IndxGetKeyInfoFromNode(IndxKeyInfo** ppKey, IndxCursor* pCursor, const uint8_t* pNode)
{
    *ppKey = nullptr;
    const auto tNode = static_cast<uint32_t>(BlckId(pNode));
    if (NodeCount(pNode) < 1) {
        IndxReportDamage(pCursor, tNode);
        return FALSE;
    }
    HeldObject<IndxKeyInfo> key;
    const int32_t keyType = pCursor->oField->keyType;
    if (!IndxNewKeyInfo(key.Out(), keyType, EntryId(NodeEntry(pNode, 0))))
        return FALSE;
    if (!IndxGetEntryValue(&key->oValue, keyType, pNode, 0)) {
        IndxReportDamage(pCursor, tNode);
        return FALSE;
    }
    key->tChild = tNode;
    *ppKey = key.Take();
    return TRUE;
}

uint32_t IndxKeyLength(const IndxKeyInfo* pKey)
{
    return pKey->keyType & INDX_KEY_HEAP_BIT ? ObjGetDataFieldSize(pKey->oValue) : 0;
}

bool IndxSameValue(int32_t keyType, void* oLeft, void* oRight)
{
    const auto* pLeft = static_cast<const char*>(ObjGetDataFieldData(oLeft));
    const auto* pRight = static_cast<const char*>(ObjGetDataFieldData(oRight));
    const uint32_t leftSize = ObjGetDataFieldSize(oLeft);
    const uint32_t rightSize = ObjGetDataFieldSize(oRight);
    switch (keyType) {
    case INDX_KEY_INTEGER:
        return ObjGetInteger(oLeft) == ObjGetInteger(oRight);
    case INDX_KEY_INT64:
        return ObjGetInt64(oLeft) == ObjGetInt64(oRight);
    case INDX_KEY_TEXT:
        return StrCompareBounded(pLeft, leftSize, pRight, rightSize) == 0;
    case INDX_KEY_TEXT_NO_CASE:
        return StrCompareBoundedNoCase(pLeft, leftSize, pRight, rightSize) == 0;
    case INDX_KEY_UNIQUE_ID:
        return leftSize == INDX_UNIQUE_ID_SIZE && rightSize == INDX_UNIQUE_ID_SIZE &&
               UniqueEqual(pLeft, pRight);
    default:
        return false;
    }
}
