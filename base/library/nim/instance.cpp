// instance.cpp: objects come, are counted, and go; and their names for messages.
//
// Death is a loop, not a recursion. An object that dies is linked to the object whose item held it
// (`reserved` of its header, with bit 0 set as the mark of the dying), and works through what it
// holds one piece at a time; what dies on the way is put on top and finished first. So the order is
// that of a recursion, depth first and in template order, but a chain of a million objects needs no
// more stack than one. Only destructors nest, because they are the caller's code.
//
// Invariants: a count is 1 or more from creation on and while the destructor runs; an object's
// memory is freed after everything it held; a variable or item is null before what it referred to
// dies, so that no destructor meets a reference that is already gone.

#include "object_internal.h"

#include "nim/mem.h"
#include "nim/proc.h"
#include "nim/trace.h"

#include <cassert>
#include <cstdio>
#include <cstring>

namespace {

constexpr char TAG[] = "OBJ        ";
constexpr uint64_t DYING = 1; // in `reserved`; the rest is the address of the dying holder

ObjHeader* HeaderOf(void* handle)
{
    return static_cast<ObjHeader*>(handle) - 1;
}

void CountLive([[maybe_unused]] ObjTemplate* tmpl, [[maybe_unused]] int32_t change)
{
#ifndef NIM_NO_FAULTS
    if (tmpl)
        tmpl->live.fetch_add(change, std::memory_order_relaxed);
#endif
}

void* SetUp(void* memory, ObjTemplate* tmpl, uint32_t pool)
{
    auto* header = static_cast<ObjHeader*>(memory);
    *header = {tmpl->magic, 0, tmpl, 1, pool, 0};
    CountLive(tmpl, 1);
    return header + 1;
}

// Zeroes the body between the inline arrays that are left as they are.
void ClearAround(const ObjTemplate* tmpl, char* body)
{
    uint32_t from = 0;
    for (uint32_t i = 0; i < tmpl->unclearedCount; ++i) {
        const ObjUncleared& array = tmpl->uncleared[i];
        memset(body + from, 0, array.offset - from);
        from = array.offset + array.length;
    }
    memset(body + from, 0, tmpl->size - from);
}

// Takes the pointer out of an item and leaves null there.
void* TakePointer(char* at)
{
    void* pointer;
    memcpy(&pointer, at, sizeof pointer);
    if (pointer)
        memset(at, 0, sizeof pointer);
    return pointer;
}

// Frees the memory that a text or data item holds.
void FreeHeld(char* body, const ObjHeldItem& item)
{
    void* pointer = TakePointer(body + item.offset);
    if (item.kind == OBJ_KIND_DATA)
        memset(body + item.offset - offsetof(ObjData, data), 0, sizeof(uint32_t));
    MemFreeInternal(&pointer);
}

bool HoldsObject(const ObjHeldItem& item)
{
    return item.kind == OBJ_KIND_OBJECT || item.kind == OBJ_KIND_TRANSIENT_OBJECT;
}

// Works through the items up to the next object and takes that out; null when there is none left.
// The pool word of the dying, which nobody needs any more, counts how far it has come.
void* TakeHeld(ObjHeader* header)
{
    const ObjTemplate* tmpl = header->tmpl;
    char* body = reinterpret_cast<char*>(header + 1);
    while (header->pool < tmpl->heldCount) {
        const ObjHeldItem& item = tmpl->held[header->pool++];
        if (!HoldsObject(item))
            FreeHeld(body, item);
        else if (void* object = TakePointer(body + item.offset))
            return object;
    }
    return nullptr;
}

void* TakeNext(ObjHeader* header)
{
    if (!header->tmpl)
        return nullptr;
    switch (header->tmpl->shape) {
    case ObjShape::List:
        return ListTakeFirst(header + 1);
    case ObjShape::Map:
        return MapTakeFirst(header + 1);
    default:
        return TakeHeld(header);
    }
}

// Marks an object as dying on behalf of `holder` (null: nobody's), and runs its destructor.
void BeginDeath(ObjHeader* header, ObjHeader* holder)
{
    header->refCount = 1;
    header->reserved = reinterpret_cast<uintptr_t>(holder) | DYING;
    if (header->tmpl && header->tmpl->destructor)
        header->tmpl->destructor(header + 1);
    header->pool = 0;
}

void FreeObject(ObjHeader* header)
{
    CountLive(header->tmpl, -1);
    header->magic = OBJ_MAGIC_DEAD;
    header->refCount = 0;
    void* memory = header;
    MemFreeInternal(&memory);
}

void Die(ObjHeader* header)
{
    BeginDeath(header, nullptr);
    while (header) {
        void* held = TakeNext(header);
        if (!held) {
            uint64_t holder = header->reserved & ~DYING;
            FreeObject(header);
            header = reinterpret_cast<ObjHeader*>(static_cast<uintptr_t>(holder));
            continue;
        }
        ObjHeader* child = HeaderOf(held);
        if (child->refCount > 1) {
            --child->refCount;
        } else if (child->refCount == 1 && !(child->reserved & DYING)) {
            BeginDeath(child, header);
            header = child;
        } else {
            ObjReleaseInternal(&held); // a count gone wrong: reported there
        }
    }
}

// The last reference goes, or there was none to drop.
[[gnu::noinline]] void ReleaseLast(void* handle)
{
    ObjHeader* header = HeaderOf(handle);
    if (header->refCount == 1 && !(header->reserved & DYING)) {
        Die(header);
        return;
    }
    NIM_TRACE(
        TAG, 1, -1, "Reference count %ld of '%p' (magic 0x%lx) released once too often",
        header->refCount, handle, header->magic);
    ProcCrash(0);
}

} // namespace

NimBool ObjTemplateCreateInstanceFromPool(void** out, ObjTemplate* tmpl, uint32_t pool)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!tmpl)
        return FALSE;
    void* memory = MemAllocateFromPool(sizeof(ObjHeader) + tmpl->size, pool);
    if (!memory)
        return FALSE;
    *out = SetUp(memory, tmpl, pool);
    return TRUE;
}

NimBool ObjTemplateCreateInstanceUncleared(void** out, ObjTemplate* tmpl, uint32_t pool)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!tmpl)
        return FALSE;
    void* memory = MemAllocateUncleared(sizeof(ObjHeader) + tmpl->size, pool);
    if (!memory)
        return FALSE;
    *out = SetUp(memory, tmpl, pool);
    ClearAround(tmpl, static_cast<char*>(*out));
    return TRUE;
}

void* ObjIncRefCount(void* handle)
{
    if (!handle)
        return nullptr;
    ++HeaderOf(handle)->refCount;
    return handle;
}

void ObjReleaseInternal(void** variable)
{
    if (!variable || !*variable)
        return;
    void* handle = *variable;
    *variable = nullptr;
    ObjHeader* header = HeaderOf(handle);
    if (header->refCount > 1)
        --header->refCount;
    else
        ReleaseLast(handle);
}

void ObjDiscardUnfinished(void* handle)
{
    ObjHeader* header = HeaderOf(handle);
    const ObjTemplate* tmpl = header->tmpl;
    assert(tmpl->shape != ObjShape::Map);
    if (tmpl->shape == ObjShape::List)
        ListForget(handle);
    for (uint32_t i = 0; i < tmpl->heldCount; ++i) {
        if (!HoldsObject(tmpl->held[i]))
            FreeHeld(static_cast<char*>(handle), tmpl->held[i]);
    }
    FreeObject(header);
}

void ObjFollowReplacement(void* handle)
{
    ObjHeader* header = HeaderOf(handle);
    ObjTemplate* replacement = header->tmpl->replacement;
    if (!replacement)
        return;
    CountLive(header->tmpl, -1);
    header->tmpl = replacement;
    CountLive(replacement, 1);
}

const char* ObjNameFromMagic(uint32_t magic)
{
    switch (magic) {
    case OBJ_MAGIC_INTEGER:
        return "Integer";
    case OBJ_MAGIC_INT64:
        return "Integer64";
    case OBJ_MAGIC_STRING:
        return "String";
    case OBJ_MAGIC_UNIQUE:
        return "UniqueId";
    case OBJ_MAGIC_DATAFIELD:
        return "DataField";
    case OBJ_MAGIC_LIST:
        return "List";
    case OBJ_MAGIC_MAP:
        return "ObjectMap";
    default:
        break;
    }
    // Eight names may stand in one message.
    constexpr uint32_t NAMES = 8;
    static thread_local char ring[NAMES][24];
    static thread_local uint32_t next = 0;
    char* name = ring[next++ % NAMES];
    snprintf(name, sizeof ring[0], "magic 0x%08x", static_cast<unsigned>(magic));
    return name;
}

const char* ObjNameFromObject(const void* handle)
{
    return handle ? ObjNameFromMagic(ObjGetMagic(handle)) : "(null)";
}
