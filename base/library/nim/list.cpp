// list.cpp: lists of objects, and walks that survive whatever happens to the list meanwhile.
//
// A list is doubly linked; a node knows its list, so that it can be taken out by itself. Every walk
// stands in a chain on its list with the node that it will visit next: taking that node out moves
// the walk on, appending gives a walk that has come to the end a next node again. The current node
// needs no care, since the walk does not look at it again.

#include "nim/list.h"

#include "object_internal.h"

#include "nim/mem.h"

namespace {

struct Walk {
    ListNode* next; // to be visited; null: none so far
    Walk* outer;    // the walk of the same list that this one runs within
};

struct List {
    ListNode* first;
    ListNode* last;
    Walk* walks; // innermost first
    uint32_t itemMagic;
    uint32_t count;
};

} // namespace

struct ListNode {
    ListNode* next;
    ListNode* previous;
    List* list;
    void* object; // one reference
};

constinit ObjTemplate gObjListTemplate(OBJ_MAGIC_LIST, sizeof(List), ObjShape::List);

namespace {

List* ListOf(void* handle)
{
    return ObjIsList(handle) ? static_cast<List*>(handle) : nullptr;
}

const List* ListOf(const void* handle)
{
    return ObjIsList(handle) ? static_cast<const List*>(handle) : nullptr;
}

bool Accepts(const List* list, const void* object)
{
    return list && object && (list->itemMagic == 0 || list->itemMagic == ObjGetMagic(object));
}

// A node for an object that the list accepts; null without memory.
ListNode* NewNode(List* list, void* object)
{
    auto* node =
        static_cast<ListNode*>(MemAllocateUncleared(sizeof(ListNode), OBJ_HEADER(list)->pool));
    if (node)
        *node = {nullptr, list->last, list, object};
    return node;
}

void Append(List* list, ListNode* node)
{
    if (list->last)
        list->last->next = node;
    else
        list->first = node;
    list->last = node;
    ++list->count;
    for (Walk* walk = list->walks; walk; walk = walk->outer) {
        if (!walk->next)
            walk->next = node;
    }
}

// Unlinks and frees a node; its object, with the list's reference, is the result.
void* TakeOut(ListNode* node)
{
    List* list = node->list;
    (node->previous ? node->previous->next : list->first) = node->next;
    (node->next ? node->next->previous : list->last) = node->previous;
    --list->count;
    for (Walk* walk = list->walks; walk; walk = walk->outer) {
        if (walk->next == node)
            walk->next = node->next;
    }
    void* object = node->object;
    void* memory = node;
    MemFreeInternal(&memory);
    return object;
}

} // namespace

NimBool ListCreateFromPool(void** out, uint32_t itemMagic, uint32_t pool)
{
    if (!out)
        return FALSE;
    *out = ListNewFromPool(itemMagic, pool);
    return *out ? TRUE : FALSE;
}

void* ListNewFromPool(uint32_t itemMagic, uint32_t pool)
{
    void* handle;
    if (ObjTemplateCreateInstanceFromPool(&handle, &gObjListTemplate, pool))
        static_cast<List*>(handle)->itemMagic = itemMagic;
    return handle;
}

uint32_t ListGetItemType(const void* list)
{
    const List* self = ListOf(list);
    return self ? self->itemMagic : 0;
}

uint32_t ListGetCount(const void* list)
{
    const List* self = ListOf(list);
    return self ? self->count : 0;
}

NimBool ListPushLastItemInternal(void* list, void** object)
{
    List* self = ListOf(list);
    if (!object || !Accepts(self, *object))
        return FALSE;
    ListNode* node = NewNode(self, *object);
    if (!node)
        return FALSE;
    *object = nullptr;
    Append(self, node);
    return TRUE;
}

NimBool ListAddLastItem(void* list, void* object)
{
    List* self = ListOf(list);
    if (!Accepts(self, object))
        return FALSE;
    ListNode* node = NewNode(self, object);
    if (!node)
        return FALSE;
    ObjIncRefCount(object);
    Append(self, node);
    return TRUE;
}

NimBool ListWalk(void* list, ListCallback f, void* context)
{
    List* self = ListOf(list);
    if (!self || !f)
        return FALSE;
    // The list may lose its last other reference on the way. Counted by hand: holding on is no step
    // that may fail.
    ++OBJ_HEADER(list)->refCount;
    Walk walk = {self->first, self->walks};
    self->walks = &walk;
    NimBool goOn = TRUE;
    while (goOn && walk.next) {
        ListNode* node = walk.next;
        walk.next = node->next;
        goOn = f(context, node->object);
    }
    self->walks = walk.outer;
    ObjReleaseInternal(&list);
    return goOn ? TRUE : FALSE;
}

NimBool ListSearch(void* list, ListMatch match, const void* key, void** item)
{
    if (item)
        *item = nullptr;
    const List* self = ListOf(list);
    if (!self || !match)
        return FALSE;
    for (const ListNode* node = self->first; node; node = node->next) {
        if (!match(key, node->object))
            continue;
        if (item)
            *item = node->object;
        return TRUE;
    }
    return FALSE;
}

NimBool ListFindNode(ListNode** node, void* list, const void* object)
{
    if (!node)
        return FALSE;
    *node = nullptr;
    const List* self = ListOf(list);
    if (!self || !object)
        return FALSE;
    ListNode* at = self->first;
    while (at && at->object != object)
        at = at->next;
    *node = at;
    return at ? TRUE : FALSE;
}

NimBool ListRemoveItem(ListNode* node)
{
    if (!node)
        return FALSE;
    void* object = TakeOut(node);
    ObjReleaseInternal(&object);
    return TRUE;
}

NimBool ListGetNthItem(void** item, void* list, uint32_t n)
{
    if (!item)
        return FALSE;
    *item = nullptr;
    const List* self = ListOf(list);
    if (!self || n >= self->count)
        return FALSE;
    const ListNode* node;
    if (n < self->count / 2) {
        node = self->first;
        while (n-- > 0)
            node = node->next;
    } else {
        node = self->last;
        for (uint32_t behind = self->count - 1 - n; behind > 0; --behind)
            node = node->previous;
    }
    *item = node->object;
    return TRUE;
}

void* ListTakeFirst(void* list)
{
    List* self = static_cast<List*>(list);
    return self->first ? TakeOut(self->first) : nullptr;
}

void ListForget(void* list)
{
    while (ListTakeFirst(list)) {
    }
}

void ListSetItemType(void* list, uint32_t itemMagic)
{
    static_cast<List*>(list)->itemMagic = itemMagic;
}

ListNode* ListNextNode(const void* list, const ListNode* node)
{
    return node ? node->next : static_cast<const List*>(list)->first;
}

void* ListNodeObject(const ListNode* node)
{
    return node->object;
}
