// scope.h: scope guards over the base services' references and memory, so that what a function
// acquires is given back on every way out of it.
#pragma once

#include "nim/mem.h"
#include "nim/object.h"

// Holds one reference on an object.
template <class T = void>
class HeldObject {
  public:
    HeldObject() = default;
    explicit HeldObject(T* object) : p_(object) {}
    ~HeldObject() { Release(); }
    HeldObject(const HeldObject&) = delete;
    HeldObject& operator=(const HeldObject&) = delete;

    T* get() const { return p_; }
    T* operator->() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }

    // For an out-parameter that receives a reference.
    T** Out()
    {
        Release();
        return &p_;
    }
    // The same for the base services, which take every handle as void*.
    class VoidOut {
      public:
        explicit VoidOut(T** target) : target_(target) {}
        ~VoidOut() { *target_ = static_cast<T*>(value_); }
        VoidOut(const VoidOut&) = delete;
        VoidOut& operator=(const VoidOut&) = delete;
        operator void**() { return &value_; } // NOLINT: meant to convert

      private:
        T** target_;
        void* value_ = nullptr;
    };
    VoidOut OutVoid() { return VoidOut(Out()); }

    // Gives the reference up to the caller.
    T* Take()
    {
        T* object = p_;
        p_ = nullptr;
        return object;
    }
    void Release()
    {
        void* object = p_;
        p_ = nullptr;
        ObjReleaseInternal(&object);
    }

  private:
    T* p_ = nullptr;
};

// Holds a block of pool memory: a text, a path, a buffer.
template <class T = char>
class HeldMemory {
  public:
    HeldMemory() = default;
    explicit HeldMemory(T* memory) : p_(memory) {}
    ~HeldMemory() { Free(); }
    HeldMemory(const HeldMemory&) = delete;
    HeldMemory& operator=(const HeldMemory&) = delete;

    T* get() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }
    void Set(T* memory)
    {
        Free();
        p_ = memory;
    }
    T** Out()
    {
        Free();
        return &p_;
    }
    T* Take()
    {
        T* memory = p_;
        p_ = nullptr;
        return memory;
    }
    void Free()
    {
        void* memory = p_;
        p_ = nullptr;
        MemFreeInternal(&memory);
    }

  private:
    T* p_ = nullptr;
};
