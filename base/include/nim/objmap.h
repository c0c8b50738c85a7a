/* objmap.h: ordered maps of objects.
 *
 * A map is itself an object (OBJ_MAGIC_MAP): it may sit in an `o` item, is counted, and dies like
 * any other. It holds one reference to each entry and keeps them in ascending order of its compare
 * function; it is walked and emptied in that order. Finding and inserting are cheap with a dozen
 * entries and with a hundred thousand: a map that is filled and emptied again and again keeps its
 * first chunk of room and takes no memory for up to 256 entries.
 *
 * A map cannot be serialised. It belongs to one thread at a time.
 */
#ifndef NIM_OBJMAP_H
#define NIM_OBJMAP_H

#include "nim/types.h"

NIM_BEGIN

/* Three-way: negative, 0 for equal, positive. */
typedef int32_t (*ObjMapCompare)(const void* a, const void* b);
/* The same for a key: `key` is the address given to ObjMapFind, `object` an entry. */
typedef int32_t (*ObjMapCompareKey)(const void* key, const void* object);
/* Goes on while it returns exactly 1. */
typedef NimBool (*ObjMapCallback)(void* context, void* object);

/* Makes an empty map in the default pool.
 * out         [out] the map with one reference; null on failure. What the variable held before is
 *             not looked at.
 * entryMagic  the magic every entry must have; 0 = any.
 * sizeHint    entries expected; advice only, 0 is legal.
 * compare     order of two entries; not null.
 * compareKey  order of a key and an entry, the same order; not null.
 * reserved    0.
 * Result: 1; 0 for a null argument or without memory. */
NIM_API NimBool ObjMapCreateInternal(
    void** out, uint32_t entryMagic, uint32_t sizeHint, ObjMapCompare compare,
    ObjMapCompareKey compareKey, uint32_t reserved);

/* Promises that both compare functions order as the signed 32-bit integer at `bodyOffset` of an
 * entry's body does, that this integer does not change while the entry is in the map, and that keys
 * given to ObjMapFind point at an int32_t. The map then keeps the integers beside its entries and
 * calls neither function. To be called while the map is empty; otherwise, and for anything but a
 * map, it does nothing. */
NIM_API void ObjMapSetIntegerKey(void* map, uint32_t bodyOffset);

/* Looks an entry up by key.
 * found  [out] the entry with a reference of the caller's own, who releases it; null when there is
 *        none.
 * Result: 1 when found, else 0 (also for null arguments and anything but a map, and when the
 * reference could not be taken). */
NIM_API NimBool ObjMapFind(void** found, void* map, const void* key);

/* The same without a reference: the entry is borrowed, as long as the map holds it. Null when there
 * is none. */
NIM_API void* ObjMapPeek(void* map, const void* key);

/* Puts an object in; the map takes a reference of its own.
 * Result: 1; 0 when an equal entry is there already, for an object that is null or of another magic
 * than the map's, for anything but a map, or without memory: then nothing has changed. */
NIM_API NimBool ObjMapInsert(void* map, void* object);

/* Calls `f` on every entry in ascending order while it returns exactly 1. Entries are borrowed.
 * `f` may look into the map, insert (what sorts behind the current entry is met) and call
 * ObjMapReleaseEntries (the walk then ends). The map is held during the walk.
 * Result: 1 when f returned 1 for every entry, also for an empty map; else 0. */
NIM_API NimBool ObjMapWalk(void* map, ObjMapCallback f, void* context);

/* Empties the map: takes all entries out first, then drops their references in ascending order. The
 * map stays usable: a destructor that runs on the way finds it empty and may insert into it. */
NIM_API void ObjMapReleaseEntries(void* map);

/* Entries in the map; 0 for null and anything but a map. */
NIM_API uint32_t ObjMapCount(const void* map);

NIM_END

#endif /* NIM_OBJMAP_H */
