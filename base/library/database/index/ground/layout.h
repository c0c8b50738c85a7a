// layout.h: the bytes of a node and of a record on disk. Nothing else says where they lie.
#pragma once

#include <cstdint>

// A node is one block of 16384 bytes:
//
//   offset        size    field
//   0             4       parent node id, 0xFFFFFFFF for the root
//   4             4       next node of the same level, 0xFFFFFFFF at the end
//   8             4       previous node of the same level, 0xFFFFFFFF at the start
//   12            4       leaf flag: 1 leaf, 0 branch
//   16            4       heap flag: 1 when the values lie in the heap
//   20            4       entry count, signed
//   24            8       means nothing: once the address of the node's end; left as it is
//   32            24 x n  the entries, in key order
//   ...                   free space
//   16384 - used  used    the heap: entry 0's value ends at the node's end, each later entry's
//                         value lies directly below its predecessor's
//
// An entry is 24 bytes:
//
//   0             4       record id
//   4             4       not used, carried along
//   8             4       32-bit value, low half of the 64-bit value, or length of the heap value
//   12            4       high half of the 64-bit value, or heap offset of the value
//   16            4       leaf: offset of the record in the records file; branch: child node id
//   20            4       not used, carried along
//
// The heap offset of an entry is the sum of the lengths of the entries up to and including it, so
// its value starts at (end - heap offset). Worked example: "ab\0" as entry 0 and "cde\0" as entry 1
// have heap offsets 3 and 7 and lie at end - 3 and end - 7.

constexpr uint32_t INDX_NODE_SIZE = 16384;

constexpr uint32_t INDX_NODE_PARENT = 0;
constexpr uint32_t INDX_NODE_NEXT = INDX_NODE_PARENT + 4;
constexpr uint32_t INDX_NODE_PREVIOUS = INDX_NODE_NEXT + 4;
constexpr uint32_t INDX_NODE_LEAF = INDX_NODE_PREVIOUS + 4;
constexpr uint32_t INDX_NODE_HEAP = INDX_NODE_LEAF + 4;
constexpr uint32_t INDX_NODE_COUNT = INDX_NODE_HEAP + 4;
constexpr uint32_t INDX_NODE_END = INDX_NODE_COUNT + 4;
constexpr uint32_t INDX_NODE_HEADER = INDX_NODE_END + 8;
static_assert(INDX_NODE_LEAF == 12 && INDX_NODE_COUNT == 20 && INDX_NODE_END == 24);
static_assert(INDX_NODE_HEADER == 32);

constexpr uint32_t INDX_ENTRY_ID = 0;
constexpr uint32_t INDX_ENTRY_VALUE = INDX_ENTRY_ID + 8;
constexpr uint32_t INDX_ENTRY_LENGTH = INDX_ENTRY_VALUE;
constexpr uint32_t INDX_ENTRY_HEAP_OFFSET = INDX_ENTRY_LENGTH + 4;
constexpr uint32_t INDX_ENTRY_POINTER = INDX_ENTRY_VALUE + 8;
constexpr uint32_t INDX_ENTRY_SIZE = INDX_ENTRY_POINTER + 8;
static_assert(INDX_ENTRY_VALUE == 8 && INDX_ENTRY_HEAP_OFFSET == 12 && INDX_ENTRY_POINTER == 16);
static_assert(INDX_ENTRY_SIZE == 24);

constexpr uint32_t INDX_NODE_ROOM = INDX_NODE_SIZE - INDX_NODE_HEADER; // 16352: entries and heap
constexpr int32_t INDX_NODE_MAX_ENTRIES = INDX_NODE_ROOM / INDX_ENTRY_SIZE; // 681
static_assert(INDX_NODE_ROOM == 16352 && INDX_NODE_MAX_ENTRIES == 681);

// A record in the records file: its total length, the rest of its header, its other fixed slots,
// its variable data. The id lies in the slot of the field "Id".
constexpr uint32_t INDX_RECORD_LENGTH = 0;
constexpr uint32_t INDX_RECORD_HEADER = 16;
constexpr uint32_t INDX_RECORDS_END = 0x7FFFFFFF; // no record starts or ends beyond this offset
