// object_graph.h: objects for tests of the object services - made from a format text, their items
// reached by number, released at the end of their scope.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "nim/fault.h"
#include "nim/mem.h"
#include "nim/object.h"

constexpr uint32_t NO_SIZE = OBJ_SIZE_COMPUTED;

// Holds one reference.
class Ref {
  public:
    Ref() = default;
    explicit Ref(void* object) : object_(object) {}
    Ref(Ref&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
    Ref& operator=(Ref&& other) noexcept
    {
        void* old = object_;
        object_ = other.object_;
        other.object_ = nullptr;
        ObjReleaseInternal(&old);
        return *this;
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    ~Ref() { ObjReleaseInternal(&object_); }

    void* get() const { return object_; }
    void** out() { return &object_; }
    // Gives the reference up.
    void* take()
    {
        void* object = object_;
        object_ = nullptr;
        return object;
    }

  private:
    void* object_ = nullptr;
};

inline ObjTemplate* TemplateOf(
    uint32_t magic, const char* format, ObjDestructor destructor = nullptr, uint32_t size = NO_SIZE)
{
    ObjTemplate* tmpl = nullptr;
    ObjTemplateCreateInternal(&tmpl, size, magic, format, destructor);
    return tmpl;
}

inline Ref NewObject(ObjTemplate* tmpl)
{
    void* object = nullptr;
    ObjTemplateCreateInstanceFromPool(&object, tmpl, MemGetDefaultPoolId());
    return Ref(object);
}

inline Ref NewObject(uint32_t magic, const char* format, ObjDestructor destructor = nullptr)
{
    return NewObject(TemplateOf(magic, format, destructor));
}

// Item `n`, from 0 on.
template <class T>
T& Item(void* object, int n)
{
    return *reinterpret_cast<T*>(
        static_cast<char*>(object) + ObjGetDbData(object)->fields[n].objectOffset);
}

inline int32_t RefCount(const void* object)
{
    return OBJ_HEADER(object)->refCount;
}

inline char* PoolText(const std::string& text)
{
    auto* copy = static_cast<char*>(
        MemAllocateFromPool(static_cast<uint32_t>(text.size()) + 1, MemGetDefaultPoolId()));
    memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

inline ObjData PoolData(const std::string& bytes)
{
    auto size = static_cast<uint32_t>(bytes.size());
    void* data = MemAllocateFromPool(size, MemGetDefaultPoolId());
    memcpy(data, bytes.data(), size);
    return {size, 0, data};
}

// What is alive now, to be compared with what is alive later.
struct Alive {
    uint32_t objects = ObjLiveCount(0);
    uint32_t pieces = MemLiveCount();
    uint64_t bytes = MemLiveBytes();
    bool operator==(const Alive&) const = default;
};
