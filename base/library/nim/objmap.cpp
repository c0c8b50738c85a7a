// objmap.cpp: ordered maps of objects in two levels of sorted arrays.
//
// The entries stand in chunks of up to 256, ascending; the directory is the array of the chunks in
// order. A look-up is a binary search in the directory and one in a chunk; an insert moves at most
// a chunk's 256 entries, and the directory only when a chunk is split. A plain sorted array would
// move half of a hundred thousand entries, a tree would take memory for every one.
//
// With an integer key the keys stand beside the entries, in arrays of their own in the chunk and in
// the directory, so that a search touches a few cache lines and no object, and calls nothing.
//
// The last chunk to become empty is kept: a map that is filled and emptied again and again takes no
// memory after the first time.
//
// Invariants: chunks in the directory are not empty; firstKeys[i] is the first key of chunk i; all
// entries are ascending by the compare function, as far as that function is an order at all (where
// it is not, searches still end, and stay inside the arrays).

#include "nim/objmap.h"

#include "memwide.h"
#include "object_internal.h"

#include <cstring>

namespace {

constexpr uint32_t CHUNK_ENTRIES = 256;
constexpr uint32_t INLINE_CHUNKS = 4;

struct Chunk {
    uint32_t count;
    int32_t keys[CHUNK_ENTRIES]; // only with an integer key
    void* objects[CHUNK_ENTRIES];
};

struct Map {
    ObjMapCompare compare;
    ObjMapCompareKey compareKey;
    uint32_t entryMagic;
    uint32_t count;
    uint32_t keyOffset;
    uint32_t chunkCount;
    uint32_t capacity;   // of the directory
    uint32_t inserts;    // since the map was made, wrapping: walks look up their place again
    uint32_t clears;     // likewise, emptied: walks end
    uint32_t takenChunk; // of a map that dies: the next entry to give up
    uint32_t takenEntry;
    bool integerKey;
    bool dying;
    Chunk* spare;   // an empty chunk kept for the next need, or null
    Chunk** chunks; // inlineChunks, or `capacity` pointers with as many keys behind them
    int32_t* firstKeys;
    Chunk* inlineChunks[INLINE_CHUNKS];
    int32_t inlineKeys[INLINE_CHUNKS];
};

struct Place {
    uint32_t chunk;
    uint32_t entry;
    bool equal; // the entry there is equal, else it is the first greater one
};

} // namespace

constinit ObjTemplate gObjMapTemplate(OBJ_MAGIC_MAP, sizeof(Map), ObjShape::Map);

namespace {

// A map that dies is empty for everybody who still knows it.
Map* MapOf(void* handle)
{
    Map* map = ObjIsMap(handle) ? static_cast<Map*>(handle) : nullptr;
    return map && !map->dying ? map : nullptr;
}

int32_t IntegerAt(const void* address, uint32_t offset)
{
    int32_t value;
    memcpy(&value, static_cast<const char*>(address) + offset, sizeof value);
    return value;
}

// ---- searching --------------------------------------------------------------------------------

// How many of the ascending keys are smaller. The comparison becomes a conditional move: there is
// nothing to predict in a search.
uint32_t CountBelow(const int32_t* keys, uint32_t count, int32_t key)
{
    const int32_t* base = keys;
    while (count > 1) {
        uint32_t half = count / 2;
        base = base[half - 1] < key ? base + half : base;
        count -= half;
    }
    return static_cast<uint32_t>(base - keys) + (count == 1 && *base < key ? 1 : 0);
}

Place PlaceOfInteger(const Map* map, int32_t key)
{
    uint32_t below =
        map->chunkCount > 1 ? CountBelow(map->firstKeys + 1, map->chunkCount - 1, key) : 0;
    // A chunk that starts with the key itself is the one.
    if (below + 1 < map->chunkCount && map->firstKeys[below + 1] == key)
        ++below;
    const Chunk* chunk = map->chunks[below];
    uint32_t entry = CountBelow(chunk->keys, chunk->count, key);
    return {below, entry, entry < chunk->count && chunk->keys[entry] == key};
}

// `order(object)` is negative when what is looked for sorts ahead of the object.
template <class Order>
Place PlaceByOrder(const Map* map, const Order& order)
{
    uint32_t from = 0;
    for (uint32_t end = map->chunkCount; end - from > 1;) {
        uint32_t middle = from + (end - from) / 2;
        if (order(map->chunks[middle]->objects[0]) >= 0)
            from = middle;
        else
            end = middle;
    }
    const Chunk* chunk = map->chunks[from];
    uint32_t low = 0;
    for (uint32_t high = chunk->count; low < high;) {
        uint32_t middle = (low + high) / 2;
        int32_t result = order(chunk->objects[middle]);
        if (result == 0)
            return {from, middle, true};
        if (result > 0)
            low = middle + 1;
        else
            high = middle;
    }
    return {from, low, false};
}

Place PlaceOfObject(const Map* map, const void* object)
{
    if (map->integerKey)
        return PlaceOfInteger(map, IntegerAt(object, map->keyOffset));
    return PlaceByOrder(map, [&](const void* entry) { return map->compare(object, entry); });
}

Place PlaceOfKey(const Map* map, const void* key)
{
    if (map->integerKey)
        return PlaceOfInteger(map, IntegerAt(key, 0));
    return PlaceByOrder(map, [&](const void* entry) { return map->compareKey(key, entry); });
}

// ---- making room ------------------------------------------------------------------------------

Chunk* NewChunk(Map* map)
{
    Chunk* chunk = map->spare;
    map->spare = nullptr;
    if (!chunk)
        chunk = static_cast<Chunk*>(MemAllocateUncleared(sizeof(Chunk), OBJ_HEADER(map)->pool));
    if (chunk)
        chunk->count = 0;
    return chunk;
}

void UseInlineDirectory(Map* map)
{
    map->chunks = map->inlineChunks;
    map->firstKeys = map->inlineKeys;
    map->capacity = INLINE_CHUNKS;
}

void FreeDirectory(const Map* map, Chunk** chunks)
{
    if (chunks != map->inlineChunks)
        MemFree(chunks);
}

bool GrowDirectory(Map* map)
{
    if (map->chunkCount < map->capacity)
        return true;
    void* memory =
        MemAllocateWideUncleared(uint64_t{map->capacity} * 4 * (sizeof(void*) + sizeof(int32_t)));
    if (!memory)
        return false;
    uint32_t capacity = map->capacity * 4;
    auto** chunks = static_cast<Chunk**>(memory);
    auto* keys = reinterpret_cast<int32_t*>(chunks + capacity);
    memcpy(chunks, map->chunks, map->chunkCount * sizeof(void*));
    memcpy(keys, map->firstKeys, map->chunkCount * sizeof(int32_t));
    FreeDirectory(map, map->chunks);
    map->chunks = chunks;
    map->firstKeys = keys;
    map->capacity = capacity;
    return true;
}

void EnterChunk(Map* map, uint32_t at, Chunk* chunk)
{
    uint32_t behind = map->chunkCount - at;
    memmove(map->chunks + at + 1, map->chunks + at, behind * sizeof(void*));
    memmove(map->firstKeys + at + 1, map->firstKeys + at, behind * sizeof(int32_t));
    map->chunks[at] = chunk;
    ++map->chunkCount;
}

// Makes room for one entry at `place` and moves the place along. A full chunk is split in halves;
// at the very end a new chunk is begun instead, so that ascending entries leave full chunks behind.
bool MakeRoom(Map* map, Place* place)
{
    if (map->chunkCount == 0) {
        Chunk* first = NewChunk(map);
        if (first)
            EnterChunk(map, 0, first);
        return first != nullptr;
    }
    Chunk* full = map->chunks[place->chunk];
    if (full->count < CHUNK_ENTRIES)
        return true;
    if (!GrowDirectory(map))
        return false;
    Chunk* right = NewChunk(map);
    if (!right)
        return false;
    bool append = place->chunk + 1 == map->chunkCount && place->entry == CHUNK_ENTRIES;
    uint32_t kept = append ? CHUNK_ENTRIES : CHUNK_ENTRIES / 2;
    right->count = CHUNK_ENTRIES - kept;
    memcpy(right->keys, full->keys + kept, right->count * sizeof(int32_t));
    memcpy(right->objects, full->objects + kept, right->count * sizeof(void*));
    full->count = kept;
    EnterChunk(map, place->chunk + 1, right);
    map->firstKeys[place->chunk + 1] = right->keys[0]; // of an empty chunk: set with its entry
    if (place->entry > kept || append) {
        ++place->chunk;
        place->entry -= kept;
    }
    return true;
}

void EnterObject(Map* map, const Place& place, void* object)
{
    Chunk* chunk = map->chunks[place.chunk];
    uint32_t behind = chunk->count - place.entry;
    void** at = chunk->objects + place.entry;
    memmove(at + 1, at, behind * sizeof(void*));
    *at = object;
    if (map->integerKey) {
        int32_t* key = chunk->keys + place.entry;
        memmove(key + 1, key, behind * sizeof(int32_t));
        *key = IntegerAt(object, map->keyOffset);
        if (place.entry == 0)
            map->firstKeys[place.chunk] = *key;
    }
    ++chunk->count;
    ++map->count;
    ++map->inserts;
}

bool Accepts(const Map* map, const void* object)
{
    if (!object || (map->entryMagic != 0 && ObjGetMagic(object) != map->entryMagic))
        return false;
    if (!map->integerKey)
        return true;
    // The same magic may stand for a smaller body: the key has to lie inside it.
    const ObjTemplate* tmpl = (static_cast<const ObjHeader*>(object) - 1)->tmpl;
    return tmpl && map->keyOffset <= tmpl->size && tmpl->size - map->keyOffset >= sizeof(int32_t);
}

// ---- emptying ---------------------------------------------------------------------------------

// Keeps an empty chunk for later, or frees it when one is kept already.
void PutBack(Map* map, Chunk* chunk)
{
    if (!map->spare)
        map->spare = chunk;
    else
        MemFree(chunk);
}

void ReleaseChunks(Map* map, Chunk* const* chunks, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        Chunk* chunk = chunks[i];
        for (uint32_t entry = 0; entry < chunk->count; ++entry)
            ObjReleaseInternal(&chunk->objects[entry]);
        PutBack(map, chunk);
    }
}

} // namespace

NimBool ObjMapCreateInternal(
    void** out, uint32_t entryMagic, uint32_t /*sizeHint*/, ObjMapCompare compare,
    ObjMapCompareKey compareKey, uint32_t /*reserved*/)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!compare || !compareKey)
        return FALSE;
    if (!ObjTemplateCreateInstanceFromPool(out, &gObjMapTemplate, MemGetDefaultPoolId()))
        return FALSE;
    auto* map = static_cast<Map*>(*out);
    map->compare = compare;
    map->compareKey = compareKey;
    map->entryMagic = entryMagic;
    UseInlineDirectory(map);
    return TRUE;
}

void ObjMapSetIntegerKey(void* map, uint32_t bodyOffset)
{
    Map* self = MapOf(map);
    if (!self || self->count)
        return;
    self->integerKey = true;
    self->keyOffset = bodyOffset;
}

NimBool ObjMapFind(void** found, void* map, const void* key)
{
    if (!found)
        return FALSE;
    *found = nullptr;
    const Map* self = MapOf(map);
    if (!self || !key || self->count == 0)
        return FALSE;
    Place place = PlaceOfKey(self, key);
    if (!place.equal)
        return FALSE;
    *found = ObjIncRefCount(self->chunks[place.chunk]->objects[place.entry]);
    return TRUE;
}

void* ObjMapPeek(void* map, const void* key)
{
    const Map* self = MapOf(map);
    if (!self || !key || self->count == 0)
        return nullptr;
    const Place place = PlaceOfKey(self, key);
    return place.equal ? self->chunks[place.chunk]->objects[place.entry] : nullptr;
}

NimBool ObjMapInsert(void* map, void* object)
{
    Map* self = MapOf(map);
    if (!self || !Accepts(self, object))
        return FALSE;
    Place place = self->count ? PlaceOfObject(self, object) : Place{};
    if (place.equal || self->count == UINT32_MAX)
        return FALSE;
    if (!MakeRoom(self, &place))
        return FALSE;
    EnterObject(self, place, ObjIncRefCount(object));
    return TRUE;
}

NimBool ObjMapWalk(void* map, ObjMapCallback f, void* context)
{
    Map* self = MapOf(map);
    if (!self || !f)
        return FALSE;
    ++OBJ_HEADER(map)->refCount; // by hand: holding on is no step that may fail
    uint32_t clears = self->clears;
    NimBool goOn = TRUE;
    for (Place at{}; goOn && at.chunk < self->chunkCount;) {
        void* object = self->chunks[at.chunk]->objects[at.entry];
        uint32_t inserts = self->inserts;
        goOn = f(context, object) == 1;
        if (self->clears != clears || self->dying)
            break;
        if (self->inserts != inserts)
            at = PlaceOfObject(self, object);
        if (++at.entry >= self->chunks[at.chunk]->count)
            at = {at.chunk + 1, 0, false};
    }
    ObjReleaseInternal(&map);
    return goOn;
}

void ObjMapReleaseEntries(void* map)
{
    Map* self = MapOf(map);
    if (!self || self->count == 0)
        return;
    ++OBJ_HEADER(map)->refCount; // a destructor may drop the map itself
    Chunk* few[INLINE_CHUNKS];
    Chunk** chunks = self->chunks;
    uint32_t count = self->chunkCount;
    if (chunks == self->inlineChunks) {
        memcpy(few, chunks, sizeof few);
        chunks = few;
    }
    UseInlineDirectory(self);
    self->chunkCount = 0;
    self->count = 0;
    ++self->clears;
    ReleaseChunks(self, chunks, count);
    if (chunks != few)
        MemFree(chunks);
    ObjReleaseInternal(&map);
}

uint32_t ObjMapCount(const void* map)
{
    if (!ObjIsMap(map))
        return 0;
    auto* self = static_cast<const Map*>(map);
    return self->dying ? 0 : self->count;
}

void* MapTakeFirst(void* map)
{
    auto* self = static_cast<Map*>(map);
    self->dying = true;
    while (self->takenChunk < self->chunkCount) {
        Chunk* chunk = self->chunks[self->takenChunk];
        if (self->takenEntry < chunk->count)
            return chunk->objects[self->takenEntry++];
        MemFree(chunk);
        ++self->takenChunk;
        self->takenEntry = 0;
    }
    FreeDirectory(self, self->chunks);
    UseInlineDirectory(self);
    self->chunkCount = 0;
    MemFree(self->spare);
    return nullptr;
}
