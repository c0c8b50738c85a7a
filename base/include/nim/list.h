/* list.h: lists of objects.
 *
 * A list is itself an object (OBJ_MAGIC_LIST): counted, and serialised with its items. It holds one
 * reference to each item and keeps them in the order they were appended; the same object may be in
 * it more than once. Lists may change while they are walked: removing the current item, the next
 * one, any other or all of them is safe, in walks within walks too, and what is appended during a
 * walk is met by it. A list belongs to one thread at a time.
 */
#ifndef NIM_LIST_H
#define NIM_LIST_H

#include "nim/types.h"

NIM_BEGIN

/* An item's place in its list; valid until the item is removed. */
typedef struct ListNode ListNode;

/* Goes on while it returns anything but 0. */
typedef NimBool (*ListCallback)(void* context, void* object);
/* Anything but 0 is a match. */
typedef NimBool (*ListMatch)(const void* key, const void* item);

/* A new empty list with one reference, in *out or as the result.
 * itemMagic  the magic every item must have; 0 = unset, any.
 * Null and 0 without memory or for an unknown pool. */
NIM_API NimBool ListCreateFromPool(void** out, uint32_t itemMagic, uint32_t pool);
NIM_API void* ListNewFromPool(uint32_t itemMagic, uint32_t pool);

/* The magic its items must have, 0 when unset; and how many there are. 0 for null and for anything
 * but a list. */
NIM_API uint32_t ListGetItemType(const void* list);
NIM_API uint32_t ListGetCount(const void* list);

/* Appends *object and takes over the caller's reference.
 * Result: 1, and *object is null; 0 for null, anything but a list, an object of another magic than
 * the list's, or without memory: variable and reference stay as they were. */
NIM_API NimBool ListPushLastItemInternal(void* list, void** object);

/* Appends `object` with a reference of the list's own; the caller keeps his.
 * Result: 1; 0 as above, and nothing has changed. */
NIM_API NimBool ListAddLastItem(void* list, void* object);

/* Calls `f` on every item, first to last, until it returns 0. Items are borrowed; the walk holds a
 * reference to the list, none to the items. What `f` may do to the list: see above.
 * Result: 1 when the end was reached, also of an empty list; 0 when f returned 0, and for null and
 * anything but a list. */
NIM_API NimBool ListWalk(void* list, ListCallback f, void* context);

/* The first item for which match(key, item) is not 0.
 * item  [out] the item, borrowed; null when there is none. May be null when only the answer counts.
 * `match` must not change the list.
 * Result: exactly 1 or 0. */
NIM_API NimBool ListSearch(void* list, ListMatch match, const void* key, void** item);

/* The place of the first item that is `object` itself.
 * Result: 1; 0 with *node null when it is not in the list. */
NIM_API NimBool ListFindNode(ListNode** node, void* list, const void* object);

/* Takes an item out and drops the list's reference to it.
 * Result: 1; 0 for null. */
NIM_API NimBool ListRemoveItem(ListNode* node);

/* Item n, from 0 on, borrowed.
 * Result: exactly 1; 0 with *item null past the end. */
NIM_API NimBool ListGetNthItem(void** item, void* list, uint32_t n);

NIM_END

/* ListPushLastItemInternal for a variable of any pointer type; the C macro names it three times. */
#ifdef __cplusplus
template <class T>
inline NimBool ListPushLastItem(void* list, T*& variable)
{
    void* object = variable;
    NimBool pushed = ListPushLastItemInternal(list, &object);
    variable = static_cast<T*>(object);
    return pushed;
}
#else
static inline NimBool ListPushTaken(void* list, void* object)
{
    return ListPushLastItemInternal(list, &object);
}
#define ListPushLastItem(list, variable)                                                           \
    (ListPushTaken((list), (variable)) ? ((variable) = NULL, (NimBool)1) : (NimBool)0)
#endif

#endif /* NIM_LIST_H */
