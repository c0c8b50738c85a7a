// key.h: the value of a key, wherever it lies; and the key of a record for the time of one
// operation.
#pragma once

#include "database/index/tree/protos.h"
#include "nim/bytes.h"

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

// The key of a record whose bytes outlive it. It lies on the stack and borrows its value; the trace
// tells of keys, so while every step is traced it is an object like those that stay.
class IndxRecordKey {
  public:
    IndxRecordKey() = default;
    ~IndxRecordKey() { ObjRelease(pTraced_); }
    IndxRecordKey(const IndxRecordKey&) = delete;
    IndxRecordKey& operator=(const IndxRecordKey&) = delete;

    NimBool Take(IndxCursor* pCursor, const ObjData* pRecord)
    {
        if (!NIM_TRACES(INDX_DETAIL))
            return IndxBorrowKeyFromRecord(&key_, pCursor, pRecord);
        return IndxGetKeyInfoFromRecord(&pTraced_, pCursor, pRecord);
    }
    IndxKeyInfo* get() { return pTraced_ ? pTraced_ : &key_; }

  private:
    IndxKeyInfo key_;
    IndxKeyInfo* pTraced_ = nullptr;
};
