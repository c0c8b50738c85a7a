// key.cpp: keys on their way between the rooms: taken from an encoded record, taken from a node,
// compared with each other. A key info carries its value as an object of the base services; a key
// of the record id index has none, since the id itself is the key.
//
// Text keys carry their NUL. A value from an inline array need not hold one: texts are compared up
// to their first NUL or their stored length, whichever comes first.

#include <cassert>
#include <cstring>

#include "database/index/tree/key.h"
#include "database/index/tree/node.h"
#include "nim/scope.h"

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

// Bytes of a value that stand somewhere else.
struct Bytes {
    const uint8_t* p;
    uint32_t size;
};

// The bytes of a text slot: length and offset lead to them in the variable part. A length that
// passes the end of the record is damage like a negative one.
bool FindText(Bytes* pText, IndxCursor* pCursor, const ObjData* pRecord, const uint8_t* pSlot)
{
    const int32_t length = GetI32(pSlot);
    if (length < 0) {
        pCursor->result = INDX_RESULT_BAD_LENGTH;
        return false;
    }
    if (length == 0) {
        pCursor->result = INDX_RESULT_EMPTY_KEY;
        return false;
    }
    if (static_cast<uint32_t>(length) > pCursor->oField->maximumKey) {
        pCursor->result = INDX_RESULT_LONG_KEY;
        return false;
    }
    const uint32_t offset = GetU32(pSlot + 4);
    if (!BytesInside(offset, static_cast<uint32_t>(length), pRecord->size)) {
        INDX_TRACE(
            INDX_ALWAYS, "Text of %ld bytes at %ld passes the end of a record of %ld bytes", length,
            offset, pRecord->size);
        pCursor->result = INDX_RESULT_BAD_LENGTH;
        return false;
    }
    *pText = {static_cast<const uint8_t*>(pRecord->data) + offset, static_cast<uint32_t>(length)};
    return true;
}

// The record's id and the bytes of its key, none where the id is the key. False: the record has no
// such key, with the cursor's result code where there is one for it.
bool FindKey(uint32_t* pId, Bytes* pValue, IndxCursor* pCursor, const ObjData* pRecord)
{
    const IndxField* pField = pCursor->oField;
    const uint32_t idOffset = pField->oTable->idOffset;
    const auto slotOffset = static_cast<uint32_t>(pField->recordOffset);
    const uint32_t width = SlotWidth(pField->keyType);
    if (!BytesInside(idOffset, 4, pRecord->size) ||
        !BytesInside(slotOffset, width, pRecord->size)) {
        INDX_TRACE(
            INDX_ALWAYS, "A record of %ld bytes is too short for field '%s' of table '%s'",
            pRecord->size, pField->name, pField->oTable->name);
        return false;
    }
    const auto* pBytes = static_cast<const uint8_t*>(pRecord->data);
    *pId = GetU32(pBytes + idOffset);
    *pValue = {nullptr, 0};
    switch (pField->keyType) {
    case INDX_KEY_RECORD_ID:
        return true;
    case INDX_KEY_INTEGER:
    case INDX_KEY_INT64:
    case INDX_KEY_UNIQUE_ID:
        *pValue = {pBytes + slotOffset, width};
        return true;
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
        return FindText(pValue, pCursor, pRecord, pBytes + slotOffset);
    case INDX_KEY_FORBIDDEN:
        pCursor->result = INDX_RESULT_KEY_TYPE;
        ProcCrash(0);
        return false;
    default:
        return false;
    }
}

// An object of a value's bytes; none for a key type that has no value.
NimBool MakeValue(void** ppValue, int32_t keyType, const Bytes& value)
{
    switch (keyType) {
    case INDX_KEY_INTEGER:
        return ObjIntegerCreate(ppValue, GetI32(value.p));
    case INDX_KEY_INT64:
        return ObjInt64Create(ppValue, GetI64(value.p));
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
    case INDX_KEY_UNIQUE_ID:
        return ObjDataFieldCreate(ppValue, value.p, value.size);
    default:
        return TRUE;
    }
}

void TraceKey(const IndxKeyInfo* pKey)
{
    switch (pKey->keyType) {
    case INDX_KEY_RECORD_ID:
        INDX_TRACE(INDX_DETAIL, "Id = %ld", pKey->recordId);
        break;
    case INDX_KEY_INTEGER:
        INDX_TRACE(INDX_DETAIL, "Id = %ld, value = %ld", pKey->recordId, KeyInteger(pKey));
        break;
    case INDX_KEY_INT64:
        INDX_TRACE(INDX_DETAIL, "Id = %ld, value = %I64d", pKey->recordId, KeyInt64(pKey));
        break;
    case INDX_KEY_UNIQUE_ID:
        INDX_TRACE(
            INDX_DETAIL, "Id = %ld, value = %s", pKey->recordId, UniqueToString(KeyBytes(pKey)));
        break;
    default: // the data field keeps a NUL behind a text's bytes
        INDX_TRACE(INDX_DETAIL, "Id = %ld, value = %s", pKey->recordId, KeyBytes(pKey));
        break;
    }
}

} // namespace

NimBool IndxGetKeyInfoFromRecord(IndxKeyInfo** ppKey, IndxCursor* pCursor, const ObjData* pRecord)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxGetKeyInfoFromRecord(%p, %p, %p)", static_cast<void*>(ppKey),
        static_cast<void*>(pCursor), static_cast<void*>(const_cast<ObjData*>(pRecord)));
    *ppKey = nullptr;
    const int32_t keyType = pCursor->oField->keyType;
    uint32_t id = 0;
    Bytes value = {};
    HeldObject<IndxKeyInfo> key;
    if (!FindKey(&id, &value, pCursor, pRecord) || !IndxNewKeyInfo(key.Out(), keyType, id) ||
        !MakeValue(&key->oValue, keyType, value))
        return FALSE;
    if (NIM_TRACES(INDX_DETAIL))
        TraceKey(key.get());
    *ppKey = key.Take();
    return TRUE;
}

NimBool IndxBorrowKeyFromRecord(IndxKeyInfo* pKey, IndxCursor* pCursor, const ObjData* pRecord)
{
    *pKey = {};
    uint32_t id = 0;
    Bytes value = {};
    if (!FindKey(&id, &value, pCursor, pRecord))
        return FALSE;
    pKey->keyType = pCursor->oField->keyType;
    pKey->recordId = id;
    pKey->pBorrowed = value.p;
    pKey->borrowedSize = value.size;
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
    Bytes value = {NodeEntry(pNode, position) + INDX_ENTRY_VALUE, 0};
    if (keyType & INDX_KEY_HEAP_BIT && !IndxHeapValue(&value.p, &value.size, pNode, position))
        return FALSE;
    return MakeValue(ppValue, keyType, value);
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
    return pKey->keyType & INDX_KEY_HEAP_BIT ? KeySize(pKey) : 0;
}

bool IndxSameKeyValue(int32_t keyType, const IndxKeyInfo* pLeft, const IndxKeyInfo* pRight)
{
    switch (keyType) {
    case INDX_KEY_INTEGER:
        return KeyInteger(pLeft) == KeyInteger(pRight);
    case INDX_KEY_INT64:
        return KeyInt64(pLeft) == KeyInt64(pRight);
    case INDX_KEY_TEXT:
        return StrCompareBounded(
                   KeyBytes(pLeft), KeySize(pLeft), KeyBytes(pRight), KeySize(pRight)) == 0;
    case INDX_KEY_TEXT_NO_CASE:
        return StrCompareBoundedNoCase(
                   KeyBytes(pLeft), KeySize(pLeft), KeyBytes(pRight), KeySize(pRight)) == 0;
    case INDX_KEY_UNIQUE_ID:
        return KeySize(pLeft) == INDX_UNIQUE_ID_SIZE && KeySize(pRight) == INDX_UNIQUE_ID_SIZE &&
               UniqueEqual(KeyBytes(pLeft), KeyBytes(pRight));
    default:
        return false;
    }
}

bool IndxSameValue(int32_t keyType, void* oLeft, void* oRight)
{
    IndxKeyInfo left = {};
    IndxKeyInfo right = {};
    left.oValue = oLeft;
    right.oValue = oRight;
    return IndxSameKeyValue(keyType, &left, &right);
}
