// key.h: keys on their way between the rooms: taken out of an encoded record, measured, compared. A
// key carries its value as an object of the base services, or borrows its bytes from where they
// lie.
#pragma once

#include <cstdint>

#include "database/index/ground/shapes.h"
#include "nim/bytes.h"

// ---- the value of a key, wherever it lies ----

inline int32_t KeyInteger(const IndxKeyInfo* pKey)
{
    return pKey->pBorrowed ? GetI32(pKey->pBorrowed) : ObjGetInteger(pKey->oValue);
}
inline int64_t KeyInt64(const IndxKeyInfo* pKey)
{
    return pKey->pBorrowed ? GetI64(pKey->pBorrowed) : ObjGetInt64(pKey->oValue);
}
inline const char* KeyBytes(const IndxKeyInfo* pKey)
{
    return static_cast<const char*>(
        pKey->pBorrowed ? pKey->pBorrowed : ObjGetDataFieldData(pKey->oValue));
}
inline uint32_t KeySize(const IndxKeyInfo* pKey)
{
    return pKey->pBorrowed ? pKey->borrowedSize : ObjGetDataFieldSize(pKey->oValue);
}

// ---- making keys ----

// Bytes of a value that stand somewhere else.
struct IndxBytes {
    const uint8_t* p;
    uint32_t size;
};

// A key info object without a value. False: no memory.
[[nodiscard]] bool IndxNewKeyInfo(IndxKeyInfo** ppKey, int32_t keyType, uint32_t recordId);

// The key of the cursor's index, taken from an encoded record, into a key info that is no object:
// it borrows its value from the record, which must outlive it. False: the record has no such key;
// the result codes 1, 2, 3 and 5 may be left in the cursor.
[[nodiscard]] bool
IndxGetKeyInfoFromRecord(IndxKeyInfo* pKey, IndxCursor* pCursor, const ObjData* pRecord);

// An object of a value's bytes; none for a key type that has no value. False: no memory.
[[nodiscard]] bool IndxMakeValue(void** ppValue, int32_t keyType, const IndxBytes& value);

// Bytes the key's value takes in the heap: 0 without a heap.
uint32_t IndxKeyLength(const IndxKeyInfo* pKey);

// ---- comparing ----

// Whether two values of a key type are equal: as objects, and of two keys.
bool IndxSameValue(int32_t keyType, void* oLeft, void* oRight);
bool IndxSameKeyValue(int32_t keyType, const IndxKeyInfo* pLeft, const IndxKeyInfo* pRight);

// Whether two records have a key of this field that is the same byte for byte. False when in doubt.
bool IndxHaveSameKey(const IndxField* pField, const ObjData* pLeft, const ObjData* pRight);
