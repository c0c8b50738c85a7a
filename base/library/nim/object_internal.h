// object_internal.h: what the rooms of the object half share - the template as it is in memory, the
// two kinds of object that are no template of items (list and map), and the steps of an object's
// death that another room has to take.
#pragma once

#include "nim/fault.h"
#include "nim/list.h"
#include "nim/object.h"

#include <atomic>
#include <cstdint>

// What lies in an object's body.
enum class ObjShape : uint8_t { Items, List, Map };

// One item that has to be given up when its object dies.
struct ObjHeldItem {
    uint32_t offset; // of the pointer: in a `d` item that is not the item's own offset
    int32_t kind;    // OBJ_KIND_...
};

// One stretch of the body that ObjTemplateCreateInstanceUncleared does not clear.
struct ObjUncleared {
    uint32_t offset;
    uint32_t length;
};

// One block of process-wide memory holds the template and everything it points at. Templates are
// linked into the registry for good, or freed before they ever were.
struct ObjTemplate {
    ObjDbData db{"", 0, 0, 16, 1, nullptr};
    std::atomic<ObjTemplate*> next{nullptr}; // in its bucket, in order of registration
    ObjDestructor destructor = nullptr;
    const ObjHeldItem* held = nullptr;
    const ObjUncleared* uncleared = nullptr;
    ObjTemplate* replacement = nullptr; // of a private one: what ObjTemplatePublish answered
    uint32_t magic = 0;
    uint32_t hash = 0;      // of magic and format
    uint32_t size = 0;      // bytes of the body, a caller's tail included
    uint32_t itemsSize = 0; // bytes of the body that the items take
    uint32_t heldCount = 0;
    uint32_t unclearedCount = 0;
    uint32_t leastSerialised = 0; // fewest bytes that a body takes in the serialised form
    ObjShape shape = ObjShape::Items;
    bool hasPointer = false;            // a `p` item
    int32_t onlyKind = 0;               // the kind of the item when there is just one
    std::atomic<bool> fromBytes{false}; // made by a reconstruction; no caller has asked for it yet
    std::atomic<uint32_t> rank{0};      // in the order of registration; 0: nobody has registered it
#ifndef NIM_NO_FAULTS
    std::atomic<int32_t> live{0}; // instances
#endif

    constexpr ObjTemplate() = default;
    constexpr ObjTemplate(uint32_t magicOf, uint32_t sizeOf, ObjShape shapeOf)
        : magic(magicOf), size(sizeOf), shape(shapeOf)
    {
    }
};

// ---- template.cpp -----------------------------------------------------------------------------

// The first registered template of this magic and format, or one that was made without being
// registered; null when there is none. No lock.
ObjTemplate* ObjTemplateFind(uint32_t magic, const char* format);
// A template of computed size, marked as made from bytes, that nobody else sees yet. Null for a
// refused format and without memory.
ObjTemplate* ObjTemplateMakePrivate(uint32_t magic, const char* format);
// Registers a private template. Another thread may have registered its like meanwhile, or it stands
// twice in one serialised form: then that one is the result, and the caller frees his.
ObjTemplate* ObjTemplatePublish(ObjTemplate* tmpl);
void ObjTemplateFreePrivate(ObjTemplate* tmpl);

// ---- instance.cpp -----------------------------------------------------------------------------

// Frees an object and the memory that its items hold, as if it had never been finished: no
// destructor, and the objects it refers to are left alone. For graphs that failed half-built; no
// map is ever in one.
void ObjDiscardUnfinished(void* handle);

// Gives an object whose template has a replacement that one.
void ObjFollowReplacement(void* handle);

// ---- list.cpp, objmap.cpp: bodies that are no items ---------------------------------------------

extern ObjTemplate gObjListTemplate;
extern ObjTemplate gObjMapTemplate;

// By template and not by magic: a template of items may carry any magic.
inline bool ObjIsList(const void* handle)
{
    return handle && (static_cast<const ObjHeader*>(handle) - 1)->tmpl == &gObjListTemplate;
}
inline bool ObjIsMap(const void* handle)
{
    return handle && (static_cast<const ObjHeader*>(handle) - 1)->tmpl == &gObjMapTemplate;
}

// For a list or map that dies: takes the first entry out, its reference included; null when empty,
// and then its room is free.
void* ListTakeFirst(void* list);
void* MapTakeFirst(void* map);
// Frees all room that a list holds, without touching the entries.
void ListForget(void* list);
void ListSetItemType(void* list, uint32_t itemMagic);
// For the serialiser: the entry behind `node` (null: the first), null at the end.
ListNode* ListNextNode(const void* list, const ListNode* node);
void* ListNodeObject(const ListNode* node);
