// template.cpp: format texts, the layout they stand for, and the registry of templates.
//
// A format text is read once, when its template is made: it yields the items' places in the body,
// their slots in the fixed part of a record, and short lists of what creation, death and
// serialisation have to look at, so that none of them meets the text again.
//
// The registry only grows: a template that has been handed out lives as long as the process,
// because objects and callers' variables point at it. Looking up takes no lock (buckets are singly
// linked and appended to at the end, each link stored once, after what it points at is complete);
// registering takes one. Its memory does not come from the pools, so that it is no leak of theirs.
//
// Objects are also made, and rebuilt, of a magic and a format that nobody has registered. The
// template that is made for them stands behind whatever is registered later, or a module that comes
// late would get objects without its tail and its destructor.

#include "object_internal.h"
#include "spinlock.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr uint64_t MAX_BODY = 0x80000000u; // a format that needs more is refused
constexpr uint64_t MAX_SLOT = 0x7fffffffu; // slots are signed 32-bit offsets
constexpr uint32_t FIRST_SLOT = 4;         // a record starts with its length
constexpr uint32_t LEAST_FIXED = 16;       // a record is read by its first 16 bytes
constexpr uint32_t LEAST_UNCLEARED = 256;  // shorter arrays are cheaper cleared than stepped over
constexpr uint32_t BUCKETS = 1024;

std::atomic<ObjTemplate*> gBuckets[BUCKETS];
SpinLock gRegistering; // looking up takes none
uint32_t gRegistered;  // templates that were given a rank; under the lock

struct Item {
    int32_t kind;
    uint32_t length; // N of n<N>
};

// What a kind takes in a body, in a record's fixed part, and at least in the serialised form.
struct Room {
    uint32_t size;
    uint32_t alignment;
    uint32_t slot;
    uint32_t serialised;
    bool storable;
};

Room RoomOf(const Item& item)
{
    switch (item.kind) {
    case OBJ_KIND_BOOLEAN:
    case OBJ_KIND_INTEGER:
        return {4, 4, 4, 4, true};
    case OBJ_KIND_INT64:
        return {8, 8, 8, 8, true};
    case OBJ_KIND_UNIQUE:
        return {32, 1, 32, 32, true};
    case OBJ_KIND_STRING:
    case OBJ_KIND_OBJECT:
        return {8, 8, 8, 1, true};
    case OBJ_KIND_DATA:
        return {16, 8, 8, 1, true};
    case OBJ_KIND_ARRAY:
        return {item.length, 1, 8, item.length, true};
    default: // pointers and transient items
        return {8, 8, 0, 0, false};
    }
}

static_assert(sizeof(void*) == 8 && sizeof(ObjData) == 16 && offsetof(ObjData, data) == 8);
static_assert(
    sizeof(ObjHeader) == 32 && offsetof(ObjHeader, flags) == 4 && offsetof(ObjHeader, tmpl) == 8 &&
    offsetof(ObjHeader, refCount) == 16 && offsetof(ObjHeader, pool) == 20 &&
    offsetof(ObjHeader, reserved) == 24);
static_assert(sizeof(ObjDbField) == 20 && sizeof(UniqueId) == 32 && alignof(UniqueId) == 1);

// Reads the N of n<N>; leaves *cursor behind its digits.
bool ReadLength(const char** cursor, uint32_t* length)
{
    uint64_t value = 0;
    const char* at = *cursor;
    for (; *at >= '0' && *at <= '9'; ++at) {
        value = value * 10 + static_cast<uint32_t>(*at - '0');
        if (value > 0x7fffffffu)
            return false;
    }
    *cursor = at;
    *length = static_cast<uint32_t>(value);
    return value > 0;
}

// Reads one item and the ";" behind it, which the last one may lack.
bool ReadItem(const char** cursor, Item* item)
{
    const char* at = *cursor;
    bool transient = (*at == 'o' || *at == 's') && at[1] == 'l';
    item->length = 0;
    switch (*at++) {
    case 'b':
        item->kind = OBJ_KIND_BOOLEAN;
        break;
    case 'i':
        item->kind = OBJ_KIND_INTEGER;
        break;
    case 's':
        item->kind = transient ? OBJ_KIND_TRANSIENT_STRING : OBJ_KIND_STRING;
        break;
    case 'o':
        item->kind = transient ? OBJ_KIND_TRANSIENT_OBJECT : OBJ_KIND_OBJECT;
        break;
    case 'p':
        item->kind = OBJ_KIND_POINTER;
        break;
    case 'd':
        item->kind = OBJ_KIND_DATA;
        break;
    case 'q':
        item->kind = OBJ_KIND_INT64;
        break;
    case 'u':
        item->kind = OBJ_KIND_UNIQUE;
        break;
    case 'n':
        item->kind = OBJ_KIND_ARRAY;
        if (!ReadLength(&at, &item->length))
            return false;
        break;
    default: // an empty item, a blank, an upper-case letter, the end of an empty text
        return false;
    }
    if (transient)
        ++at;
    if (*at == ';')
        ++at;
    else if (*at)
        return false;
    *cursor = at;
    return true;
}

// Everything that a format text says, counted on a first reading and written down on a second.
struct Layout {
    uint64_t size = 0;
    uint64_t slotsEnd = FIRST_SLOT;
    uint64_t serialised = 0;
    uint32_t items = 0;
    uint32_t held = 0;
    uint32_t uncleared = 0;
    bool storable = true;
    bool hasPointer = false;
    int32_t lastKind = 0;
};

// The arrays of a template that is being made; all null on the first reading.
struct LayoutArrays {
    ObjDbField* fields = nullptr;
    ObjHeldItem* held = nullptr;
    ObjUncleared* uncleared = nullptr;
};

bool IsHeld(int32_t kind)
{
    switch (kind) {
    case OBJ_KIND_STRING:
    case OBJ_KIND_OBJECT:
    case OBJ_KIND_DATA:
    case OBJ_KIND_TRANSIENT_OBJECT:
    case OBJ_KIND_TRANSIENT_STRING:
        return true;
    default:
        return false;
    }
}

void PlaceItem(Layout* layout, const LayoutArrays& arrays, const Item& item)
{
    Room room = RoomOf(item);
    uint64_t offset = (layout->size + room.alignment - 1) / room.alignment * room.alignment;
    auto offset32 = static_cast<uint32_t>(offset);
    if (arrays.fields)
        arrays.fields[layout->items] = {
            item.kind, static_cast<int32_t>(offset32), static_cast<int32_t>(layout->slotsEnd),
            static_cast<int32_t>(item.length), 0};
    if (IsHeld(item.kind)) {
        uint32_t pointer = item.kind == OBJ_KIND_DATA ? offsetof(ObjData, data) : 0;
        if (arrays.held)
            arrays.held[layout->held] = {offset32 + pointer, item.kind};
        ++layout->held;
    }
    if (item.kind == OBJ_KIND_ARRAY && item.length >= LEAST_UNCLEARED) {
        if (arrays.uncleared)
            arrays.uncleared[layout->uncleared] = {offset32, item.length};
        ++layout->uncleared;
    }
    ++layout->items;
    layout->size = offset + room.size;
    layout->slotsEnd += room.slot;
    layout->serialised += room.serialised;
    layout->storable = layout->storable && room.storable;
    layout->hasPointer = layout->hasPointer || item.kind == OBJ_KIND_POINTER;
    layout->lastKind = item.kind;
}

bool ReadFormat(Layout* layout, const LayoutArrays& arrays, const char* format)
{
    const char* cursor = format;
    do {
        Item item;
        if (!ReadItem(&cursor, &item))
            return false;
        PlaceItem(layout, arrays, item);
        if (layout->size > MAX_BODY || layout->slotsEnd > MAX_SLOT)
            return false;
    } while (*cursor);
    layout->size = (layout->size + 7) / 8 * 8;
    return layout->size <= MAX_BODY;
}

// FNV-1a over the magic and the text.
// A format without the ";" at its end, which says nothing: "i;s" and "i;s;" are one format, and a
// host that spells it otherwise than a table that was made long ago still gets its own objects
// back.
size_t LengthOf(const char* format)
{
    const size_t length = strlen(format);
    return length > 0 && format[length - 1] == ';' ? length - 1 : length;
}

bool IsSameFormat(const char* one, const char* other)
{
    const size_t length = LengthOf(one);
    return length == LengthOf(other) && memcmp(one, other, length) == 0;
}

uint32_t HashOf(uint32_t magic, const char* format)
{
    uint32_t hash = 2166136261u ^ magic;
    for (const char* end = format + LengthOf(format); format < end; ++format)
        hash = (hash ^ static_cast<uint8_t>(*format)) * 16777619u;
    return hash ^ hash >> 15;
}

// What a caller looks for beyond magic and format.
struct Wanted {
    uint32_t size = OBJ_SIZE_COMPUTED; // or OBJ_SIZE_COMPUTED: any
    bool anyDestructor = true;
    ObjDestructor destructor = nullptr;
};

// Whether one template was registered before another. One that nobody has registered comes last:
// its rank of 0 wraps to the highest number.
bool WasRegisteredBefore(const ObjTemplate* one, const ObjTemplate* other)
{
    return one->rank.load(std::memory_order_relaxed) - 1 <
           other->rank.load(std::memory_order_relaxed) - 1;
}

// The first registered of those that fit.
ObjTemplate* Find(uint32_t hash, uint32_t magic, const char* format, const Wanted& wanted)
{
    ObjTemplate* found = nullptr;
    ObjTemplate* tmpl = gBuckets[hash % BUCKETS].load(std::memory_order_acquire);
    for (; tmpl; tmpl = tmpl->next.load(std::memory_order_acquire)) {
        if (tmpl->hash != hash || tmpl->magic != magic)
            continue;
        // A template that is registered has its text exactly; for an object any spelling will do.
        if (wanted.anyDestructor ? !IsSameFormat(tmpl->db.format, format)
                                 : strcmp(tmpl->db.format, format) != 0)
            continue;
        if (wanted.size != OBJ_SIZE_COMPUTED && wanted.size != tmpl->size)
            continue;
        if (!wanted.anyDestructor && wanted.destructor != tmpl->destructor)
            continue;
        if (!found || WasRegisteredBefore(tmpl, found))
            found = tmpl;
    }
    return found;
}

// Appends. Under the lock.
void Link(ObjTemplate* tmpl)
{
    std::atomic<ObjTemplate*>* link = &gBuckets[tmpl->hash % BUCKETS];
    while (ObjTemplate* other = link->load(std::memory_order_relaxed))
        link = &other->next;
    link->store(tmpl, std::memory_order_release);
}

template <class T>
T* Carve(char** memory, uint32_t count)
{
    T* array = reinterpret_cast<T*>(*memory);
    *memory += sizeof(T) * count;
    return array;
}

ObjTemplate* Make(uint32_t magic, const char* format, const Layout& counted)
{
    static_assert(
        alignof(ObjTemplate) >= alignof(ObjHeldItem) &&
        alignof(ObjHeldItem) >= alignof(ObjDbField) &&
        alignof(ObjUncleared) == alignof(ObjDbField));
    size_t text = strlen(format) + 1;
    size_t total = sizeof(ObjTemplate) + sizeof(ObjHeldItem) * counted.held +
                   sizeof(ObjUncleared) * counted.uncleared + sizeof(ObjDbField) * counted.items +
                   text;
    auto* memory = static_cast<char*>(FaultFails(FAULT_ALLOC) ? nullptr : calloc(1, total));
    if (!memory)
        return nullptr;
    auto* tmpl =
        new (memory) ObjTemplate(magic, static_cast<uint32_t>(counted.size), ObjShape::Items);
    memory += sizeof(ObjTemplate);
    LayoutArrays arrays;
    arrays.held = Carve<ObjHeldItem>(&memory, counted.held);
    arrays.uncleared = Carve<ObjUncleared>(&memory, counted.uncleared);
    arrays.fields = Carve<ObjDbField>(&memory, counted.items);
    memcpy(memory, format, text);
    Layout again;
    ReadFormat(&again, arrays, format);
    tmpl->db = {
        memory,
        static_cast<int32_t>(counted.items),
        0,
        std::max(LEAST_FIXED, static_cast<uint32_t>(counted.slotsEnd)),
        counted.storable ? 0u : 1u,
        arrays.fields};
    tmpl->held = arrays.held;
    tmpl->heldCount = counted.held;
    tmpl->uncleared = arrays.uncleared;
    tmpl->unclearedCount = counted.uncleared;
    tmpl->itemsSize = tmpl->size;
    tmpl->leastSerialised = static_cast<uint32_t>(counted.serialised);
    tmpl->hasPointer = counted.hasPointer;
    tmpl->onlyKind = counted.items == 1 ? counted.lastKind : 0;
    tmpl->hash = HashOf(magic, tmpl->db.format);
    return tmpl;
}

#ifndef NIM_NO_FAULTS
uint32_t LiveOf(const ObjTemplate& tmpl, uint32_t magic)
{
    if (magic != 0 && magic != tmpl.magic)
        return 0;
    return static_cast<uint32_t>(tmpl.live.load(std::memory_order_relaxed));
}
#endif

} // namespace

// Finds or makes the template of exactly this size and destructor; null when it is refused, and
// without memory.
static ObjTemplate* FindOrMake(
    uint32_t size, uint32_t magic, const char* format, ObjDestructor destructor, bool registers)
{
    Layout layout;
    if (!ReadFormat(&layout, {}, format))
        return nullptr;
    if (size != OBJ_SIZE_COMPUTED) {
        if (size < layout.size || size > MAX_BODY)
            return nullptr;
        size = (size + 7) / 8 * 8;
    } else {
        size = static_cast<uint32_t>(layout.size);
    }
    uint32_t hash = HashOf(magic, format);
    Wanted wanted{size, false, destructor};
    ObjTemplate* tmpl = Find(hash, magic, format, wanted);
    if (tmpl && (!registers || tmpl->rank.load(std::memory_order_relaxed) != 0))
        return tmpl;
    SpinLockGuard guard(gRegistering);
    tmpl = Find(hash, magic, format, wanted);
    bool isNew = !tmpl;
    if (isNew) {
        tmpl = Make(magic, format, layout);
        if (!tmpl)
            return nullptr;
        tmpl->size = size;
        tmpl->destructor = destructor;
    }
    if (registers && tmpl->rank.load(std::memory_order_relaxed) == 0)
        tmpl->rank.store(++gRegistered, std::memory_order_relaxed);
    if (isNew)
        Link(tmpl);
    return tmpl;
}

NimBool ObjTemplateCreateInternal(
    ObjTemplate** out, uint32_t size, uint32_t magic, const char* format, ObjDestructor destructor)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!format)
        return FALSE;
    ObjTemplate* tmpl = FindOrMake(size, magic, format, destructor, true);
    if (!tmpl)
        return FALSE;
    if (tmpl->fromBytes.load(std::memory_order_relaxed))
        tmpl->fromBytes.store(false, std::memory_order_relaxed);
    *out = tmpl;
    return TRUE;
}

const ObjDbData* ObjGetDbDataFromTemplate(ObjTemplate* tmpl)
{
    return tmpl ? &tmpl->db : nullptr;
}

const ObjDbData* ObjGetDbData(const void* handle)
{
    return handle ? ObjGetDbDataFromTemplate((static_cast<const ObjHeader*>(handle) - 1)->tmpl)
                  : nullptr;
}

NimBool ObjCreateInternal(
    void** out, uint32_t size, uint32_t magic, const char* format, ObjDestructor destructor,
    uint32_t pool)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!format)
        return FALSE;
    Wanted wanted{size, destructor == nullptr, destructor};
    if (size != OBJ_SIZE_COMPUTED)
        wanted.size = static_cast<uint32_t>((static_cast<uint64_t>(size) + 7) / 8 * 8);
    ObjTemplate* tmpl = Find(HashOf(magic, format), magic, format, wanted);
    if (!tmpl)
        tmpl = FindOrMake(size, magic, format, destructor, false);
    return ObjTemplateCreateInstanceFromPool(out, tmpl, pool); // refuses null
}

ObjTemplate* ObjTemplateFind(uint32_t magic, const char* format)
{
    return Find(HashOf(magic, format), magic, format, {});
}

ObjTemplate* ObjTemplateMakePrivate(uint32_t magic, const char* format)
{
    Layout layout;
    if (!ReadFormat(&layout, {}, format))
        return nullptr;
    ObjTemplate* tmpl = Make(magic, format, layout);
    if (tmpl)
        tmpl->fromBytes.store(true, std::memory_order_relaxed);
    return tmpl;
}

ObjTemplate* ObjTemplatePublish(ObjTemplate* tmpl)
{
    SpinLockGuard guard(gRegistering);
    Wanted wanted{tmpl->size, false, nullptr};
    ObjTemplate* registered = Find(tmpl->hash, tmpl->magic, tmpl->db.format, wanted);
    if (registered)
        return registered;
    Link(tmpl);
    return tmpl;
}

void ObjTemplateFreePrivate(ObjTemplate* tmpl)
{
    free(tmpl);
}

#ifndef NIM_NO_FAULTS
uint32_t ObjLiveCount(uint32_t magic)
{
    uint32_t count = LiveOf(gObjListTemplate, magic) + LiveOf(gObjMapTemplate, magic);
    for (std::atomic<ObjTemplate*>& bucket : gBuckets) {
        ObjTemplate* tmpl = bucket.load(std::memory_order_acquire);
        for (; tmpl; tmpl = tmpl->next.load(std::memory_order_acquire))
            count += LiveOf(*tmpl, magic);
    }
    return count;
}
#endif
