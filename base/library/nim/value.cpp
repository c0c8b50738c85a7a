// value.cpp: the built-in value objects - 32-bit and 64-bit integer, text, data block, unique id.
//
// They are ordinary objects of ordinary templates ("i;", "q;", "s;", "d;", "u;") in the default
// pool. What is read out of one is checked by magic and by shape: a magic alone is no promise of
// what lies in the body, since anybody may register a template under any magic.

#include "memwide.h"
#include "object_internal.h"

#include <cstring>

namespace {

// A template that is registered at its first use. Two threads may both register it; they get the
// same one.
class BuiltIn {
  public:
    constexpr BuiltIn(uint32_t magic, const char* format) : magic_(magic), format_(format) {}

    // A new instance, null without memory.
    void* New()
    {
        ObjTemplate* tmpl = tmpl_.load(std::memory_order_acquire);
        if (!tmpl) {
            if (!ObjTemplateCreateInternal(&tmpl, OBJ_SIZE_COMPUTED, magic_, format_, nullptr))
                return nullptr;
            tmpl_.store(tmpl, std::memory_order_release);
        }
        void* object;
        ObjTemplateCreateInstanceFromPool(&object, tmpl, MemGetDefaultPoolId());
        return object;
    }

  private:
    std::atomic<ObjTemplate*> tmpl_{nullptr};
    uint32_t magic_;
    const char* format_;
};

constinit BuiltIn gInteger(OBJ_MAGIC_INTEGER, "i;");
constinit BuiltIn gInt64(OBJ_MAGIC_INT64, "q;");
constinit BuiltIn gString(OBJ_MAGIC_STRING, "s;");
constinit BuiltIn gUnique(OBJ_MAGIC_UNIQUE, "u;");
constinit BuiltIn gDataField(OBJ_MAGIC_DATAFIELD, "d;");

// Whether the object has this magic and its body is this one item.
bool Is(const void* handle, uint32_t magic, int32_t kind)
{
    if (ObjGetMagic(handle) != magic)
        return false;
    const ObjTemplate* tmpl = (static_cast<const ObjHeader*>(handle) - 1)->tmpl;
    return tmpl && tmpl->onlyKind == kind;
}

template <class T>
NimBool CreateNumber(void** out, BuiltIn& type, T value)
{
    if (!out)
        return FALSE;
    *out = type.New();
    if (!*out)
        return FALSE;
    memcpy(*out, &value, sizeof value);
    return TRUE;
}

// Copies `len` bytes and puts a NUL behind them.
bool CopyBytes(void* dest, const void* bytes, size_t len)
{
    auto* to = static_cast<char*>(dest);
    if (!to)
        return false;
    if (len)
        memcpy(to, bytes, len);
    to[len] = 0;
    return true;
}

} // namespace

NimBool ObjIntegerCreate(void** out, int32_t value)
{
    return CreateNumber(out, gInteger, value);
}

NimBool ObjInt64Create(void** out, int64_t value)
{
    return CreateNumber(out, gInt64, value);
}

NimBool ObjDataFieldCreate(void** out, const void* bytes, uint32_t len)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!bytes && len)
        return FALSE;
    void* object = gDataField.New();
    if (!object)
        return FALSE;
    // The NUL that the size does not count lets a text be traced out of the block as it stands.
    ObjData data = {len, 0, MemAllocateWideUncleared(uint64_t{len} + 1)};
    if (!CopyBytes(data.data, bytes, len)) {
        ObjReleaseInternal(&object);
        return FALSE;
    }
    memcpy(object, &data, sizeof data);
    *out = object;
    return TRUE;
}

void* ObjIntegerNew(int32_t value)
{
    void* object;
    ObjIntegerCreate(&object, value);
    return object;
}

void* ObjInt64New(int64_t value)
{
    void* object;
    ObjInt64Create(&object, value);
    return object;
}

void* ObjStringNew(const char* text)
{
    size_t length = text ? strlen(text) : 0;
    void* object = gString.New();
    if (!object || !text)
        return object;
    void* copy = MemAllocateWideUncleared(uint64_t{length} + 1);
    if (CopyBytes(copy, text, length))
        memcpy(object, &copy, sizeof copy);
    else
        ObjReleaseInternal(&object);
    return object;
}

void* ObjUniqueNew(const UniqueId* id)
{
    void* object = gUnique.New();
    if (object && id)
        memcpy(object, id, sizeof *id);
    return object;
}

int32_t ObjGetInteger(const void* handle)
{
    int32_t value = 0;
    if (Is(handle, OBJ_MAGIC_INTEGER, OBJ_KIND_INTEGER))
        memcpy(&value, handle, sizeof value);
    return value;
}

int64_t ObjGetInt64(const void* handle)
{
    int64_t value = 0;
    if (Is(handle, OBJ_MAGIC_INT64, OBJ_KIND_INT64))
        memcpy(&value, handle, sizeof value);
    return value;
}

const char* ObjGetString(const void* handle)
{
    const char* text = nullptr;
    if (Is(handle, OBJ_MAGIC_STRING, OBJ_KIND_STRING))
        memcpy(&text, handle, sizeof text);
    return text;
}

const UniqueId* ObjGetUnique(const void* handle)
{
    return Is(handle, OBJ_MAGIC_UNIQUE, OBJ_KIND_UNIQUE) ? static_cast<const UniqueId*>(handle)
                                                         : nullptr;
}

void* ObjGetDataFieldData(const void* handle)
{
    ObjData data{};
    if (Is(handle, OBJ_MAGIC_DATAFIELD, OBJ_KIND_DATA))
        memcpy(&data, handle, sizeof data);
    return data.data;
}

uint32_t ObjGetDataFieldSize(const void* handle)
{
    ObjData data{};
    if (Is(handle, OBJ_MAGIC_DATAFIELD, OBJ_KIND_DATA))
        memcpy(&data, handle, sizeof data);
    return data.size;
}
