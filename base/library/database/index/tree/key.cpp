// key.cpp: keys out of encoded records, and values compared. It knows no node.
//
// Text keys carry their NUL. A value from an inline array need not hold one: texts are compared up
// to their first NUL or their stored length, whichever comes first.

#include "database/index/tree/key.h"

#include <algorithm>
#include <cstring>

#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "nim/scope.h"

bool IndxNewKeyInfo(IndxKeyInfo** ppKey, int32_t keyType, uint32_t recordId)
{
    *ppKey = nullptr;
    void* oKey = nullptr;
    if (!IndxEnsureTemplates() ||
        !ObjTemplateCreateInstanceFromPool(&oKey, gIndxTemplates.keyInfo, IndxPool()))
        return false;
    auto* pKey = static_cast<IndxKeyInfo*>(oKey);
    pKey->keyType = keyType;
    pKey->recordId = recordId;
    *ppKey = pKey;
    return true;
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

// The bytes of a text slot: length and offset lead to them in the variable part. A length that
// passes the end of the record is damage like a negative one.
bool FindText(IndxBytes* pText, IndxCursor* pCursor, const ObjData* pRecord, const uint8_t* pSlot)
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
bool FindKey(uint32_t* pId, IndxBytes* pValue, IndxCursor* pCursor, const ObjData* pRecord)
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

// The beginning of a text key, with a NUL of its own: in a record it need not end with one.
struct ShownText {
    char text[256];
    explicit ShownText(const IndxKeyInfo* pKey)
    {
        const uint32_t size = std::min<uint32_t>(KeySize(pKey), sizeof text - 1);
        memcpy(text, KeyBytes(pKey), size);
        text[size] = 0;
    }
};

void TraceText(const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "Id = %ld, value = %s", pKey->recordId, ShownText(pKey).text);
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
    default:
        TraceText(pKey);
        break;
    }
}

} // namespace

bool IndxGetKeyInfoFromRecord(IndxKeyInfo* pKey, IndxCursor* pCursor, const ObjData* pRecord)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxGetKeyInfoFromRecord(%p, %p, %p)", static_cast<void*>(pKey),
        static_cast<void*>(pCursor), static_cast<void*>(const_cast<ObjData*>(pRecord)));
    *pKey = {};
    uint32_t id = 0;
    IndxBytes value = {};
    if (!FindKey(&id, &value, pCursor, pRecord))
        return false;
    pKey->keyType = pCursor->oField->keyType;
    pKey->recordId = id;
    pKey->pBorrowed = value.p;
    pKey->borrowedSize = value.size;
    TraceKey(pKey);
    return true;
}

bool IndxMakeValue(void** ppValue, int32_t keyType, const IndxBytes& value)
{
    switch (keyType) {
    case INDX_KEY_INTEGER:
        return ObjIntegerCreate(ppValue, GetI32(value.p)) != 0;
    case INDX_KEY_INT64:
        return ObjInt64Create(ppValue, GetI64(value.p)) != 0;
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
    case INDX_KEY_UNIQUE_ID:
        return ObjDataFieldCreate(ppValue, value.p, value.size) != 0;
    default:
        return true;
    }
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
