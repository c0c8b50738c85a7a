// record_objects.h: objects and database BLOBs for tests of the record encoding: made from a format
// text, filled item by item, released at the end of their scope.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "database/dbrecord.h"
#include "nim/mem.h"
#include "nim/object.h"
#include "nim/str.h"

// Holds one reference.
class Held {
  public:
    Held() = default;
    explicit Held(void* object) : object_(object) {}
    Held(Held&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() { ObjReleaseInternal(&object_); }

    void* get() const { return object_; }
    void** out() { return &object_; }

  private:
    void* object_ = nullptr;
};

// Item `n` of an object, counted from 0.
template <typename T>
T& Item(void* object, int n)
{
    char* body = static_cast<char*>(object);
    return *reinterpret_cast<T*>(body + ObjGetDbData(object)->fields[n].objectOffset);
}

inline char* PoolText(const std::string& text)
{
    return StrDuplicateRangeIntoPool(
        text.data(), MemGetDefaultPoolId(), static_cast<uint32_t>(text.size()));
}

inline ObjData PoolData(const std::string& bytes)
{
    const uint32_t size = static_cast<uint32_t>(bytes.size());
    void* data = MemAllocateFromPool(size, MemGetDefaultPoolId());
    std::memcpy(data, bytes.data(), size);
    return {size, 0, data};
}

inline std::string DataBytes(const ObjData& data)
{
    return std::string(static_cast<const char*>(data.data), data.size);
}

// A zeroed object of a template made from magic and format.
class Instance {
  public:
    Instance(uint32_t magic, const std::string& format)
    {
        EXPECT_EQ(
            ObjTemplateCreateInternal(
                &template_, OBJ_SIZE_COMPUTED, magic, format.c_str(), nullptr),
            1u);
        EXPECT_EQ(
            ObjTemplateCreateInstanceFromPool(held_.out(), template_, MemGetDefaultPoolId()), 1u);
    }
    void* get() const { return held_.get(); }
    ObjTemplate* pTemplate() const { return template_; }

    template <typename T>
    T& at(int n)
    {
        return Item<T>(get(), n);
    }
    void setText(int n, const std::string& text) { at<char*>(n) = PoolText(text); }
    void setData(int n, const std::string& bytes) { at<ObjData>(n) = PoolData(bytes); }

  private:
    ObjTemplate* template_ = nullptr;
    Held held_;
};

inline Held Encoded(const void* object)
{
    Held blob;
    EXPECT_EQ(DbConvertObjectToDbFormat(blob.out(), object), 1u);
    return blob;
}

inline Held Decoded(const void* blob)
{
    Held object;
    EXPECT_EQ(DbConvertObjectFromDbFormat(object.out(), blob), 1u);
    return object;
}

inline std::string RecordBytes(const void* blob)
{
    return DataBytes(static_cast<const DbBlob*>(blob)->data);
}

// A BLOB around any bytes, as if they had come from a records file.
inline Held MakeBlob(uint32_t magic, const char* format, const std::string& bytes)
{
    Instance blob(DB_BLOB_MAGIC, DB_BLOB_FORMAT);
    auto* body = static_cast<DbBlob*>(blob.get());
    body->magic = magic;
    body->format = format ? PoolText(format) : nullptr;
    body->data = PoolData(bytes);
    return Held(ObjIncRefCount(blob.get()));
}
