/* object.h: typed objects - templates, instances, references, the built-in value objects, names,
 * and the serialised form.
 *
 * A handle is the address of an object's body. The 32 bytes ahead of it are the header: the magic
 * that names the object's kind, a flag word that belongs to the host, the template, the reference
 * count and the pool. A module whose layout is fixed lays a plain struct over the body.
 *
 * Format texts. One letter code an item, each followed by ";" (the last ";" may be left out):
 *
 *   code   in memory                                  database kind   at death    serialised
 *   b      int32_t, a truth value                      1                          4 bytes
 *   i      int32_t                                     2                          4 bytes
 *   s      char*, NUL-terminated text or null          3              freed       length, bytes
 *   o      void*, counted reference to an object       4              released    the object
 *   p      void*, anything                             6 (none)       left alone  left out
 *   d      ObjData, byte count and bytes               7              freed       count, bytes
 *   n<N>   uint8_t[N], N from 1                        8                          N bytes
 *   ol     void*, counted reference, memory only       9 (none)       released    left out
 *   q      int64_t                                     10                         8 bytes
 *   u      UniqueId                                    11                         32 bytes
 *   sl     char*, text, memory only                    12 (none)      freed       left out
 *
 * Items lie in memory as in the C struct of these members; the size is rounded up to 8. What `s`,
 * `sl` and `d` point at must come from MemAllocateFromPool: it is freed with the object.
 *
 * Threads: templates, names and counters may be used from several threads at once; an object and
 * what it refers to belongs to one thread at a time. Every function takes null handles and answers
 * 0 or null; an out-parameter is always written, never read, and a null one makes the call fail.
 */
#ifndef NIM_OBJECT_H
#define NIM_OBJECT_H

#include "nim/types.h"
#include "nim/unique.h"

NIM_BEGIN

/* ---- what an object is ------------------------------------------------------------------------
 */

typedef struct ObjTemplate ObjTemplate;

/* Directly ahead of the body, so that a handle minus 32 bytes is the header. 32 bytes keep the
 * body aligned to 16. */
typedef struct ObjHeader {
    uint32_t magic;    /* names the kind; OBJ_MAGIC_DEAD once the object has gone              */
    uint32_t flags;    /* the host's: 0 at creation, never read, cleared or stored here        */
    ObjTemplate* tmpl; /* the template; never null in a live object                            */
    int32_t refCount;  /* references held; 1 at creation and while the destructor runs         */
    uint32_t pool;     /* the pool the object came from                                        */
    uint64_t reserved; /* the base services' own                                               */
} ObjHeader;

#define OBJ_HEADER(handle) ((ObjHeader*)(handle)-1)

/* Every magic in use obeys (magic & OBJ_MAGIC_MASK) == OBJ_MAGIC_VALID. Template creation does not
 * judge it: whoever takes an object from outside does. */
#define OBJ_MAGIC_MASK 0xF8000000u
#define OBJ_MAGIC_VALID 0xC8000000u

#define OBJ_MAGIC_INTEGER 0xc96cf22au   /* "i;"                                                 */
#define OBJ_MAGIC_INT64 0xc998c2b6u     /* "q;"                                                 */
#define OBJ_MAGIC_STRING 0xc96cec6fu    /* "s;"                                                 */
#define OBJ_MAGIC_UNIQUE 0xca84a8d9u    /* "u;"                                                 */
#define OBJ_MAGIC_DATAFIELD 0xc96eda7au /* "d;"                                                 */
#define OBJ_MAGIC_LIST 0xc96e1157u      /* list.h                                               */
#define OBJ_MAGIC_MAP 0xc96e3a95u       /* objmap.h                                             */
#define OBJ_MAGIC_NONE 0xFFFFFFFFu      /* the magic of a null handle                           */
#define OBJ_MAGIC_DEAD 0xdeadbeefu      /* in the header of an object that has gone             */

/* Lets ObjTemplateCreateInternal and ObjCreateInternal compute the size from the format. */
#define OBJ_SIZE_COMPUTED 0xFFFFFFFFu

/* A `d` item: `size` bytes at `data`. */
typedef struct ObjData {
    uint32_t size;
    uint32_t pad;
    void* data;
} ObjData;

/* Database kinds, as ObjDbField.kind holds them. The last three have no database form; 0 and 5 are
 * assigned to nothing. */
enum {
    OBJ_KIND_BOOLEAN = 1,
    OBJ_KIND_INTEGER = 2,
    OBJ_KIND_STRING = 3,
    OBJ_KIND_OBJECT = 4,
    OBJ_KIND_DATA = 7,
    OBJ_KIND_ARRAY = 8,
    OBJ_KIND_INT64 = 10,
    OBJ_KIND_UNIQUE = 11,
    OBJ_KIND_POINTER = 6,
    OBJ_KIND_TRANSIENT_OBJECT = 9,
    OBJ_KIND_TRANSIENT_STRING = 12
};

/* One item of a template. */
typedef struct ObjDbField {
    int32_t kind;         /* OBJ_KIND_...                                                       */
    int32_t objectOffset; /* of the item in the body                                            */
    int32_t fixedOffset;  /* of its slot in the fixed part of a record, from 4 on; an item with
                             no database form takes no slot (the running offset stands here)    */
    int32_t arrayLength;  /* N of n<N>, else 0                                                  */
    int32_t reserved;     /* 0                                                                  */
} ObjDbField;

/* Read-only description of a template, alive as long as the process. Slots follow one another in
 * template order from byte 4 on, unaligned: 4 bytes for kinds 1 and 2, 8 for 10, 32 for 11, 8 for
 * 3, 4, 7 and 8. The assignment is frozen: stored records depend on it. */
typedef struct ObjDbData {
    const char* format;       /* the format text as given; "" for lists and maps                */
    int32_t fieldCount;       /* items; 0 for lists and maps                                    */
    uint32_t reserved;        /* 0                                                              */
    uint32_t fixedSize;       /* the larger of 16 and the end of the last slot                  */
    uint32_t notStorable;     /* 1 when an item has no database form, and for lists and maps    */
    const ObjDbField* fields; /* fieldCount descriptors                                         */
} ObjDbData;

/* Runs when the last reference goes, on the intact body, with the count parked at 1. It may take
 * and drop references to the object, but cannot keep it alive. */
typedef void (*ObjDestructor)(void* object);

/* The object's magic, OBJ_MAGIC_NONE for null. The 32 bytes ahead of `handle` must be readable. */
static inline uint32_t ObjGetMagic(const void* handle)
{
    return handle ? ((const ObjHeader*)handle - 1)->magic : OBJ_MAGIC_NONE;
}

/* ---- templates --------------------------------------------------------------------------------
 */

/* Finds or makes a template.
 * out         [out] the template; null on failure. Lives as long as the process.
 * size        bytes of the body, or OBJ_SIZE_COMPUTED. A size above the computed one leaves a tail
 *             that belongs to the caller's module: zeroed at creation, never serialised, never
 *             released. Rounded up to 8.
 * magic       written into the header of every instance; not judged.
 * format      the format text; copied.
 * destructor  may be null.
 * Result: 1; 0 when format is null, empty or unacceptable (an empty item, a blank, an unknown
 * code, an array length outside 1..0x7fffffff, a body over 2^31 bytes), when size is below the
 * computed one, or without memory: then nothing has been registered.
 * The same magic, exact format text, size and destructor always give the same handle, so that
 * creating a template again costs a look-up and no memory. */
NIM_API NimBool ObjTemplateCreateInternal(
    ObjTemplate** out, uint32_t size, uint32_t magic, const char* format, ObjDestructor destructor);

/* The description of a template; null only for a null template. */
NIM_API const ObjDbData* ObjGetDbDataFromTemplate(ObjTemplate* tmpl);

/* The description of an object's template; null for a null object or a header without template. */
NIM_API const ObjDbData* ObjGetDbData(const void* handle);

/* ---- instances and references -----------------------------------------------------------------
 */

/* A new object: one reference, flags 0, every byte of the body zero.
 * out   [out] the object; null on failure. The caller owns its reference.
 * tmpl  null gives 0.  pool  see mem.h; an unknown pool gives 0.
 * Result: 1, or 0 (null argument, no memory). */
NIM_API NimBool ObjTemplateCreateInstanceFromPool(void** out, ObjTemplate* tmpl, uint32_t pool);

/* The same, but the bytes of inline arrays of 256 bytes and more are left as the memory came:
 * for objects whose array the next step overwrites. The caller must write every byte of them
 * before they are read. Everything else of the body, the tail included, is zero. */
NIM_API NimBool ObjTemplateCreateInstanceUncleared(void** out, ObjTemplate* tmpl, uint32_t pool);

/* A new zeroed object from magic and format: of the first registered template with this magic and
 * format, with or without the ";" at its end (when `destructor` is given: and this destructor; when
 * `size` is given: and this size), else of one made for it. Registered is what
 * ObjTemplateCreateInternal was asked for: a template that was made for objects alone gives way to
 * whatever is registered later. Parameters as in ObjTemplateCreateInternal. Result: 1; 0 with *out
 * null for a null or refused format or without memory. */
NIM_API NimBool ObjCreateInternal(
    void** out, uint32_t size, uint32_t magic, const char* format, ObjDestructor destructor,
    uint32_t pool);

/* Adds a reference, which cannot fail. Returns `handle`; null for null. */
NIM_API void* ObjIncRefCount(void* handle);

/* Drops the reference that *variable holds and sets *variable to null, first of all. Null in either
 * place is nothing to do.
 *
 * With the last reference the object dies: its destructor runs on the intact body; then, in
 * template order, `o` and `ol` items are set to null and released and `s`, `sl` and `d` items are
 * set to null and freed; the magic becomes OBJ_MAGIC_DEAD and the memory is freed. A list or map
 * gives up its entries first to last instead of items. Whatever dies on the way dies wholly before
 * the next item is looked at, and an object's own memory goes after everything it held: a child's
 * destructor may still read the parent that is dying around it.
 *
 * No recursion: a chain of any length is released in constant stack. Only a destructor that itself
 * releases objects nests.
 *
 * A count that is already below 1 is traced and ends the process (ProcCrash(0)). */
NIM_API void ObjReleaseInternal(void** variable);

/* ---- built-in objects (default pool, ordinary templates) ---------------------------------------
 */

/* Each writes a new object with one reference to *out and returns 1, or null and 0 when there is no
 * memory. The data field copies `len` bytes (0 is legal, then `bytes` may be null; a null `bytes`
 * with a length gives 0) and keeps one NUL behind them that its size does not count. */
NIM_API NimBool ObjIntegerCreate(void** out, int32_t value);
NIM_API NimBool ObjInt64Create(void** out, int64_t value);
NIM_API NimBool ObjDataFieldCreate(void** out, const void* bytes, uint32_t len);

/* Each returns a new object with one reference, null without memory. The text is copied; a null
 * text stays null, and a null id gives the id of 32 zero bytes. */
NIM_API void* ObjIntegerNew(int32_t value);
NIM_API void* ObjInt64New(int64_t value);
NIM_API void* ObjStringNew(const char* text);
NIM_API void* ObjUniqueNew(const UniqueId* id);

/* The value; 0 or null for null and for an object of another magic. Pointers are borrowed: valid
 * while the object lives. */
NIM_API int32_t ObjGetInteger(const void* handle);
NIM_API int64_t ObjGetInt64(const void* handle);
NIM_API const char* ObjGetString(const void* handle);
NIM_API const UniqueId* ObjGetUnique(const void* handle);
NIM_API void* ObjGetDataFieldData(const void* handle);
NIM_API uint32_t ObjGetDataFieldSize(const void* handle);

/* ---- names for messages ------------------------------------------------------------------------
 */

/* "Integer", "Integer64", "String", "UniqueId", "DataField", "List", "ObjectMap"; any other magic
 * as "magic 0xca8ab522"; "(null)" for a null object. Never null, not freed: a text that is no
 * literal stands in a ring of 8 buffers a thread, so that eight names can be used at once. */
NIM_API const char* ObjNameFromObject(const void* handle);
NIM_API const char* ObjNameFromMagic(uint32_t magic);

/* ---- serialised form ---------------------------------------------------------------------------
 */

/* Self-delimiting, little-endian, checksummed; the layout stands in serial.cpp. Items `p`, `ol` and
 * `sl`, a template's tail, header flags and counts are left out; references between the objects,
 * cycles included, come back as they were. Integers take fixed room: the size never depends on
 * their values, only on texts, data blocks, lists and shape. Object maps cannot be serialised. */

/* Exact bytes of the serialised form; 0 for null, for a graph that holds an object map or is deeper
 * than 64, and without memory. */
NIM_API uint32_t ObjSerializedSize(const void* handle);

/* Writes the serialised form to `dest`, which must have room for ObjSerializedSize bytes.
 * size  [out] bytes written, 0 on failure; may be null.
 * Result: 1; 0 as for a size of 0: then nothing has been written. */
NIM_API NimBool ObjSerializeToMemory(const void* handle, void* dest, uint32_t* size);

/* The same in one go, without measuring first, for a form that is written again and again.
 * scratch  [out] the form. After a failure its bytes mean nothing, so it is no place for a form
 *          that is still needed.
 * room     bytes of scratch; never written past.
 * size     [out] bytes written, 0 on failure; may be null.
 * number   address of an item `i` or `b` of the object or of one it holds; may be null.
 * place    [out] where the form has that item, 0 when it does not have it; may be null.
 * Result: 1; 0 as for ObjSerializeToMemory, or when the form is longer than the room. */
NIM_API NimBool ObjSerializeInto(
    const void* handle, void* scratch, uint32_t room, uint32_t* size, const void* number,
    uint32_t* place);

/* Puts another value in the place of an item `i` or `b` of a form, and seals it again: what the
 * object would be serialised to if it differed in this number alone. Costs the same for a form of
 * any size.
 * form   a sound form, whose contents are not checked again.
 * room   bytes that it may take; never written past.
 * place  as ObjSerializeInto has told it of this form, or of one of the same object.
 * Result: 1; 0 when the form has no four bytes there or claims more than the room, and then nothing
 * has been written. */
NIM_API NimBool ObjSerializedPutNumber(void* form, uint32_t room, uint32_t place, uint32_t value);

/* Rebuilds an object. `src` must be readable as far as its own envelope says (16 bytes at least);
 * where the caller knows how much there is, the sized form is the one to use.
 * out        [out] the object with one reference, null on failure.
 * available  bytes readable at src; more than the form needs is legal.
 * Result: 1; 0 when the bytes are not a whole, undamaged serialised form, name a format that is
 * refused or the template of objects that cannot be rebuilt (a destructor and a `p` item), or
 * without memory. Nothing is left behind then. Memory taken is bounded by the bytes available.
 * Templates are found by magic and format, as ObjCreateInternal finds them, else made. */
NIM_API NimBool ObjReconstructFromMemory(void** out, const void* src);
NIM_API NimBool ObjReconstructFromMemorySized(void** out, const void* src, uint32_t available);

NIM_END

/* ---- typed forms -------------------------------------------------------------------------------
 * A Thing* variable is no void* variable: C does not convert it and a cast breaks aliasing. These
 * go through a void* of their own. The C macros name their variable twice. */
#ifdef __cplusplus
template <class T>
inline void ObjRelease(T*& variable)
{
    void* handle = variable;
    variable = nullptr;
    ObjReleaseInternal(&handle);
}
template <class T>
inline NimBool ObjTemplateCreate(
    T** out, uint32_t size, uint32_t magic, const char* format, ObjDestructor destructor)
{
    ObjTemplate* tmpl = nullptr;
    NimBool made =
        ObjTemplateCreateInternal(out ? &tmpl : nullptr, size, magic, format, destructor);
    if (out)
        *out = static_cast<T*>(tmpl);
    return made;
}
template <class T>
inline NimBool ObjTemplateCreateInstance(T** out, ObjTemplate* tmpl, uint32_t pool)
{
    void* handle = nullptr;
    NimBool made = ObjTemplateCreateInstanceFromPool(out ? &handle : nullptr, tmpl, pool);
    if (out)
        *out = static_cast<T*>(handle);
    return made;
}
#else
static inline ObjTemplate*
ObjTemplateGet(uint32_t size, uint32_t magic, const char* format, ObjDestructor destructor)
{
    ObjTemplate* tmpl;
    ObjTemplateCreateInternal(&tmpl, size, magic, format, destructor);
    return tmpl;
}
static inline void* ObjInstanceGet(ObjTemplate* tmpl, uint32_t pool)
{
    void* handle;
    ObjTemplateCreateInstanceFromPool(&handle, tmpl, pool);
    return handle;
}
#define ObjRelease(variable)                                                                       \
    do {                                                                                           \
        void* objReleaseHandle = (variable);                                                       \
        (variable) = NULL;                                                                         \
        ObjReleaseInternal(&objReleaseHandle);                                                     \
    } while (0)
#define ObjTemplateCreate(out, size, magic, format, destructor)                                    \
    ((NimBool)((*(out) = ObjTemplateGet(size, magic, format, destructor)) != NULL))
#define ObjTemplateCreateInstance(out, tmpl, pool)                                                 \
    ((NimBool)((*(out) = ObjInstanceGet(tmpl, pool)) != NULL))
#endif

#endif /* NIM_OBJECT_H */
