// serial.cpp: objects to bytes and back.
//
// The form, little-endian and unaligned:
//
//   envelope   offset  size
//              0       4     "NIMO"
//              4       2     version, 1
//              6       2     0
//              8       4     total length, envelope included
//              12      4     CRC-32 of everything behind the envelope
//              16            one object value, which ends where the form ends
//
//   object value: a tag byte, then
//     0        nothing: a null item
//     1        LEB128 number of an object met before (numbers in order of first meeting, root 0)
//     2        LEB128 number of a template met before, then the body
//     3        u32 magic, format as a text, then the body (the template gets the next number)
//
//   body of an object of items, item by item: i b 4 bytes, q 8, u 32, n<N> N; s a text; d LEB128
//   count and the bytes; o an object value; p ol sl nothing. A text is LEB128 0 for null, else its
//   length plus 1 and its bytes without the NUL.
//   body of a list (format ""): u32 magic of its items, u32 count, as many object values.
//
// Numbers are written in full width and only lengths and references in LEB128: a form must not grow
// when a number in it does, because its room is measured once and then it is written over again and
// again. An object is numbered before its body, so that a cycle closes on a number.
//
// What is read is not believed. The cursor checks every step; every value takes at least one byte,
// so that the work is bounded by the length, and memory by a small multiple of it; depth ends
// at 64. New templates stay private until the whole form is good. When it is not, everything made
// so far is freed one by one without following any reference, because half-built cycles cannot be
// counted down.

#include "crc32.h"
#include "memwide.h"
#include "object_internal.h"

#include "nim/list.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace {

constexpr uint32_t ENVELOPE = 16;
constexpr uint32_t AT_VERSION = 4;
constexpr uint32_t AT_LENGTH = 8;
constexpr uint32_t AT_CRC = 12;
constexpr uint32_t SIGNATURE = 0x4F4D494Eu; // "NIMO"
constexpr uint32_t VERSION = 1;             // with the word 0 behind it
constexpr uint32_t MAX_DEPTH = 64;
constexpr uint32_t LIST_HEAD = 8;

enum Tag : uint8_t { TAG_NULL = 0, TAG_BACK = 1, TAG_KNOWN = 2, TAG_NEW = 3 };

uint32_t Get32(const uint8_t* at)
{
    uint32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

void Put32(uint8_t* at, uint32_t value)
{
    memcpy(at, &value, sizeof value);
}

template <class T>
T At(const void* body, int32_t offset)
{
    T value;
    memcpy(&value, static_cast<const char*>(body) + offset, sizeof value);
    return value;
}

// ---- numbering what has been written ------------------------------------------------------------

// Numbers pointers in order of first meeting: open addressing, at most half full. The first slots
// are few, so that a small graph does not pay for clearing many; then there are INLINE_SLOTS on the
// stack, and what is larger moves to the pool.
template <uint32_t FIRST_SLOTS, uint32_t INLINE_SLOTS>
class Numbering {
  public:
    Numbering() { std::fill_n(inlinePointers_, FIRST_SLOTS, nullptr); }
    ~Numbering() { MemFree(memory_); }
    Numbering(const Numbering&) = delete;
    Numbering& operator=(const Numbering&) = delete;

    enum Met { NEW, KNOWN, NO_MEMORY };
    Met Meet(const void* pointer, uint32_t* number)
    {
        uint32_t slot = Slot(pointer);
        if (pointers_[slot]) {
            *number = numbers_[slot];
            return KNOWN;
        }
        if (count_ >= slots_ / 2) {
            if (!(slots_ < INLINE_SLOTS ? GrowInline() : GrowIntoPool()))
                return NO_MEMORY;
            slot = Slot(pointer);
        }
        pointers_[slot] = pointer;
        numbers_[slot] = *number = count_++;
        return NEW;
    }

  private:
    // Where the pointer is, or the free slot where it would be put.
    uint32_t Slot(const void* pointer) const
    {
        uint64_t mixed = reinterpret_cast<uintptr_t>(pointer) * 0x9E3779B97F4A7C15u;
        auto slot = static_cast<uint32_t>(mixed >> 40) & (slots_ - 1);
        while (pointers_[slot] && pointers_[slot] != pointer)
            slot = (slot + 1) & (slots_ - 1);
        return slot;
    }

    void Take(const void* const* pointers, const uint32_t* numbers, uint32_t slots)
    {
        for (uint32_t i = 0; i < slots; ++i) {
            if (!pointers[i])
                continue;
            uint32_t slot = Slot(pointers[i]);
            pointers_[slot] = pointers[i];
            numbers_[slot] = numbers[i];
        }
    }

    bool GrowInline()
    {
        const void* pointers[FIRST_SLOTS];
        uint32_t numbers[FIRST_SLOTS];
        memcpy(pointers, inlinePointers_, sizeof pointers);
        memcpy(numbers, inlineNumbers_, sizeof numbers);
        memset(inlinePointers_, 0, sizeof inlinePointers_);
        slots_ = INLINE_SLOTS;
        Take(pointers, numbers, FIRST_SLOTS);
        return true;
    }

    bool GrowIntoPool()
    {
        constexpr uint32_t SLOT = sizeof(void*) + sizeof(uint32_t);
        void* memory = MemAllocateWide(uint64_t{slots_} * 4 * SLOT);
        if (!memory)
            return false;
        uint32_t slots = slots_ * 4;
        const void* const* oldPointers = pointers_;
        const uint32_t* oldNumbers = numbers_;
        uint32_t oldSlots = slots_;
        pointers_ = static_cast<const void**>(memory);
        numbers_ = reinterpret_cast<uint32_t*>(pointers_ + slots);
        slots_ = slots;
        Take(oldPointers, oldNumbers, oldSlots);
        MemFree(memory_);
        memory_ = memory;
        return true;
    }

    uint32_t count_ = 0;
    uint32_t slots_ = FIRST_SLOTS;
    const void** pointers_ = inlinePointers_;
    uint32_t* numbers_ = inlineNumbers_;
    void* memory_ = nullptr;
    const void* inlinePointers_[INLINE_SLOTS]; // zeroed as far as in use; numbers need not be
    uint32_t inlineNumbers_[INLINE_SLOTS];
};

// ---- writing ------------------------------------------------------------------------------------

// Sizer and writer are one: without a destination it only counts, so that the two cannot disagree.
class Writer {
  public:
    Writer() = default;
    // `number` (null allowed): the item whose place in the form is wanted.
    Writer(uint8_t* dest, uint64_t room, const void* number)
        : dest_(dest), room_(room), number_(number)
    {
    }

    uint64_t length() const { return length_; }
    // Where the form has the number that was asked for; 0: it has not.
    uint64_t place() const { return place_; }
    // With a destination: whether all of it found room there.
    bool fits() const { return length_ <= room_; }

    bool WriteValue(const void* handle, uint32_t depth)
    {
        if (!handle) {
            PutByte(TAG_NULL);
            return true;
        }
        uint32_t number;
        switch (objects_.Meet(handle, &number)) {
        case Objects::NO_MEMORY:
            return false;
        case Objects::KNOWN:
            PutByte(TAG_BACK);
            PutLeb(number);
            return true;
        default:
            break;
        }
        const ObjTemplate* tmpl = (static_cast<const ObjHeader*>(handle) - 1)->tmpl;
        if (!tmpl || tmpl->shape == ObjShape::Map || depth > MAX_DEPTH || !WriteTemplate(tmpl))
            return false;
        if (tmpl->shape == ObjShape::List)
            return WriteList(handle, depth);
        return WriteItems(tmpl, handle, depth);
    }

  private:
    using Objects = Numbering<64, 512>;
    using Templates = Numbering<16, 32>;

    void Put(const void* bytes, size_t size)
    {
        if (dest_ && size && length_ <= room_ && size <= room_ - length_)
            memcpy(dest_ + length_, bytes, size);
        length_ += size;
    }
    // Of a size that the compiler knows.
    template <size_t SIZE>
    void PutFixed(const void* bytes)
    {
        if (dest_ && length_ <= room_ && SIZE <= room_ - length_)
            memcpy(dest_ + length_, bytes, SIZE);
        length_ += SIZE;
    }
    void PutByte(uint8_t value) { PutFixed<1>(&value); }
    void PutNumber(const void* at)
    {
        if (at == number_)
            place_ = length_ + ENVELOPE;
        PutFixed<4>(at);
    }
    void PutLeb(uint64_t value)
    {
        for (; value >= 0x80; value >>= 7)
            PutByte(static_cast<uint8_t>(value | 0x80));
        PutByte(static_cast<uint8_t>(value));
    }
    void PutText(const char* text)
    {
        size_t length = text ? strlen(text) : 0;
        PutLeb(text ? uint64_t{length} + 1 : 0);
        Put(text, length);
    }
    void PutData(const ObjData& data)
    {
        uint32_t size = data.data ? data.size : 0;
        PutLeb(size);
        Put(data.data, size);
    }

    bool WriteTemplate(const ObjTemplate* tmpl)
    {
        uint32_t number;
        Templates::Met met = templates_.Meet(tmpl, &number);
        if (met == Templates::KNOWN) {
            PutByte(TAG_KNOWN);
            PutLeb(number);
        } else {
            PutByte(TAG_NEW);
            PutFixed<sizeof tmpl->magic>(&tmpl->magic);
            PutText(tmpl->db.format);
        }
        return met != Templates::NO_MEMORY;
    }

    bool WriteItems(const ObjTemplate* tmpl, const void* body, uint32_t depth)
    {
        const ObjDbField* end = tmpl->db.fields + tmpl->db.fieldCount;
        for (const ObjDbField* field = tmpl->db.fields; field < end; ++field) {
            const char* at = static_cast<const char*>(body) + field->objectOffset;
            switch (field->kind) {
            case OBJ_KIND_BOOLEAN:
            case OBJ_KIND_INTEGER:
                PutNumber(at);
                break;
            case OBJ_KIND_INT64:
                PutFixed<8>(at);
                break;
            case OBJ_KIND_UNIQUE:
                PutFixed<sizeof(UniqueId)>(at);
                break;
            case OBJ_KIND_ARRAY:
                Put(at, static_cast<uint32_t>(field->arrayLength));
                break;
            case OBJ_KIND_STRING:
                PutText(At<const char*>(body, field->objectOffset));
                break;
            case OBJ_KIND_DATA:
                PutData(At<ObjData>(body, field->objectOffset));
                break;
            case OBJ_KIND_OBJECT:
                if (!WriteValue(At<void*>(body, field->objectOffset), depth + 1))
                    return false;
                break;
            default: // memory only
                break;
            }
        }
        return length_ <= UINT32_MAX;
    }

    bool WriteList(const void* list, uint32_t depth)
    {
        uint32_t head[2] = {ListGetItemType(list), ListGetCount(list)};
        static_assert(sizeof head == LIST_HEAD);
        PutFixed<sizeof head>(head);
        const ListNode* node = ListNextNode(list, nullptr);
        for (; node; node = ListNextNode(list, node)) {
            if (!WriteValue(ListNodeObject(node), depth + 1))
                return false;
        }
        return length_ <= UINT32_MAX;
    }

    uint8_t* dest_ = nullptr;
    uint64_t room_ = 0;
    uint64_t length_ = 0;
    const void* number_ = nullptr;
    uint64_t place_ = 0;
    Objects objects_;
    Templates templates_;
};

// ---- reading ------------------------------------------------------------------------------------

// A growing array; short ones stay on the stack.
template <class T, uint32_t INLINE_ENTRIES>
class Growing {
  public:
    Growing() = default;
    ~Growing() { MemFree(memory_); }
    Growing(const Growing&) = delete;
    Growing& operator=(const Growing&) = delete;

    uint32_t count() const { return count_; }
    T& operator[](uint32_t i) { return entries_[i]; }
    // Room for one more, so that a Push cannot fail.
    bool Reserve()
    {
        if (count_ < capacity_)
            return true;
        void* memory = MemAllocateWideUncleared(uint64_t{capacity_} * 2 * sizeof(T));
        if (!memory)
            return false;
        memcpy(memory, entries_, count_ * sizeof(T));
        MemFree(memory_);
        memory_ = memory;
        entries_ = static_cast<T*>(memory);
        capacity_ *= 2;
        return true;
    }
    void Push(const T& entry) { entries_[count_++] = entry; }

  private:
    uint32_t count_ = 0;
    uint32_t capacity_ = INLINE_ENTRIES;
    T* entries_ = inline_;
    void* memory_ = nullptr;
    T inline_[INLINE_ENTRIES];
};

class Reader {
  public:
    // Bodies made of templates that only the form itself names may take this much; bodies of
    // templates that the program has registered are as large as it made them.
    Reader(const uint8_t* from, const uint8_t* end)
        : at_(from), end_(end), allowance_((1u << 20) + 256 * Left())
    {
    }

    // Reads the one value that has to fill the bytes; null on failure, and nothing is left behind.
    void* ReadRoot()
    {
        void* root;
        if (ReadValue(&root, 1) && root && at_ == end_) {
            Publish();
            return root;
        }
        for (uint32_t i = 0; i < objects_.count(); ++i)
            ObjDiscardUnfinished(objects_[i]);
        for (uint32_t i = 0; i < templates_.count(); ++i) {
            if (templates_[i].isPrivate)
                ObjTemplateFreePrivate(templates_[i].tmpl);
        }
        return nullptr;
    }

  private:
    struct Met {
        ObjTemplate* tmpl;
        bool isPrivate;
    };

    uint64_t Left() const { return static_cast<uint64_t>(end_ - at_); }

    bool Get(void* dest, uint64_t size)
    {
        if (size > Left())
            return false;
        memcpy(dest, at_, size);
        at_ += size;
        return true;
    }

    // Only the shortest encoding of a number is one, so that a form has a single size.
    bool GetLeb(uint32_t* value)
    {
        uint64_t sum = 0;
        for (uint32_t shift = 0; shift < 35; shift += 7) {
            if (at_ == end_)
                return false;
            uint8_t byte = *at_++;
            sum |= static_cast<uint64_t>(byte & 0x7f) << shift;
            if (byte & 0x80)
                continue;
            if ((byte == 0 && shift > 0) || sum > UINT32_MAX)
                return false;
            *value = static_cast<uint32_t>(sum);
            return true;
        }
        return false;
    }

    // A text as it stands in the form: *bytes null for the null text. A NUL inside is refused.
    bool GetText(const char** bytes, uint32_t* length)
    {
        *bytes = nullptr;
        *length = 0;
        uint32_t size;
        if (!GetLeb(&size))
            return false;
        if (size == 0)
            return true;
        if (size - 1 > Left() || memchr(at_, 0, size - 1))
            return false;
        *bytes = reinterpret_cast<const char*>(at_);
        *length = size - 1;
        at_ += *length;
        return true;
    }

    // A copy with a NUL behind it; null without memory.
    static char* CopyWithNul(const void* bytes, uint32_t length)
    {
        auto* copy = static_cast<char*>(MemAllocateWideUncleared(uint64_t{length} + 1));
        if (!copy)
            return nullptr;
        if (length)
            memcpy(copy, bytes, length);
        copy[length] = 0;
        return copy;
    }

    bool ReadString(char* item)
    {
        const char* bytes;
        uint32_t length;
        if (!GetText(&bytes, &length))
            return false;
        if (!bytes)
            return true;
        char* copy = CopyWithNul(bytes, length);
        memcpy(item, &copy, sizeof copy);
        return copy != nullptr;
    }

    bool ReadData(char* item)
    {
        uint32_t size;
        if (!GetLeb(&size) || size > Left())
            return false;
        if (size == 0)
            return true;
        ObjData data = {size, 0, CopyWithNul(at_, size)};
        if (!data.data)
            return false;
        memcpy(item, &data, sizeof data);
        at_ += size;
        return true;
    }

    bool ReadValue(void** value, uint32_t depth)
    {
        *value = nullptr;
        uint8_t tag;
        if (!Get(&tag, 1))
            return false;
        uint32_t number;
        ObjTemplate* tmpl;
        switch (tag) {
        case TAG_NULL:
            return true;
        case TAG_BACK:
            if (!GetLeb(&number) || number >= objects_.count())
                return false;
            *value = ObjIncRefCount(objects_[number]);
            return true;
        case TAG_KNOWN:
            if (!GetLeb(&number) || number >= templates_.count())
                return false;
            tmpl = templates_[number].tmpl;
            break;
        case TAG_NEW:
            tmpl = ReadTemplate();
            break;
        default:
            return false;
        }
        return tmpl && depth <= MAX_DEPTH && ReadObject(value, tmpl, depth);
    }

    // Finds the template that the form names, or makes it; null when there cannot be one.
    ObjTemplate* ReadTemplate()
    {
        uint32_t magic;
        const char* bytes;
        uint32_t length;
        if (!Get(&magic, sizeof magic) || !GetText(&bytes, &length) || !bytes ||
            !templates_.Reserve())
            return nullptr;
        Met met = {nullptr, false};
        if (length == 0)
            met.tmpl = magic == OBJ_MAGIC_LIST ? &gObjListTemplate : nullptr;
        else if (magic != OBJ_MAGIC_LIST && magic != OBJ_MAGIC_MAP)
            met = FindOrMake(magic, bytes, length);
        if (met.tmpl)
            templates_.Push(met);
        return met.tmpl;
    }

    Met FindOrMake(uint32_t magic, const char* bytes, uint32_t length)
    {
        char shortText[128];
        char* text = shortText;
        char* longText = nullptr;
        if (length < sizeof shortText) {
            memcpy(shortText, bytes, length);
            shortText[length] = 0;
        } else {
            text = longText = CopyWithNul(bytes, length);
            if (!text)
                return {nullptr, false};
        }
        Met met = {ObjTemplateFind(magic, text), false};
        if (!met.tmpl)
            met = {ObjTemplateMakePrivate(magic, text), true};
        MemFree(longText);
        return met;
    }

    bool ReadObject(void** value, ObjTemplate* tmpl, uint32_t depth)
    {
        // A destructor that expects a pointer would run on nothing.
        if (tmpl->destructor && tmpl->hasPointer)
            return false;
        bool list = tmpl->shape == ObjShape::List;
        if ((list ? LIST_HEAD : tmpl->leastSerialised) > Left() || !Allow(tmpl) ||
            !objects_.Reserve())
            return false;
        void* object;
        if (!ObjTemplateCreateInstanceFromPool(&object, tmpl, MemGetDefaultPoolId()))
            return false;
        objects_.Push(object);
        *value = object;
        return list ? ReadList(object, depth) : ReadItems(tmpl, object, depth);
    }

    bool Allow(const ObjTemplate* tmpl)
    {
        if (!tmpl->fromBytes.load(std::memory_order_relaxed))
            return true;
        if (tmpl->size > allowance_)
            return false;
        allowance_ -= tmpl->size;
        return true;
    }

    bool ReadItems(const ObjTemplate* tmpl, void* body, uint32_t depth)
    {
        const ObjDbField* end = tmpl->db.fields + tmpl->db.fieldCount;
        for (const ObjDbField* field = tmpl->db.fields; field < end; ++field) {
            if (!ReadItem(*field, static_cast<char*>(body) + field->objectOffset, depth))
                return false;
        }
        return true;
    }

    bool ReadItem(const ObjDbField& field, char* item, uint32_t depth)
    {
        void* nested;
        switch (field.kind) {
        case OBJ_KIND_BOOLEAN:
        case OBJ_KIND_INTEGER:
            return Get(item, 4);
        case OBJ_KIND_INT64:
            return Get(item, 8);
        case OBJ_KIND_UNIQUE:
            return Get(item, sizeof(UniqueId));
        case OBJ_KIND_ARRAY:
            return Get(item, static_cast<uint32_t>(field.arrayLength));
        case OBJ_KIND_STRING:
            return ReadString(item);
        case OBJ_KIND_DATA:
            return ReadData(item);
        case OBJ_KIND_OBJECT:
            if (!ReadValue(&nested, depth + 1))
                return false;
            memcpy(item, &nested, sizeof nested);
            return true;
        default: // memory only
            return true;
        }
    }

    bool ReadList(void* list, uint32_t depth)
    {
        assert(Left() >= LIST_HEAD); // or there would be no list
        const uint8_t* head = at_;
        at_ += LIST_HEAD;
        ListSetItemType(list, Get32(head));
        uint32_t count = Get32(head + 4);
        if (count > Left())
            return false;
        for (uint32_t i = 0; i < count; ++i) {
            void* item;
            if (!ReadValue(&item, depth + 1) || !ListPushLastItemInternal(list, &item))
                return false;
        }
        return true;
    }

    // The form is good: registers the templates that it brought. An object whose template turns out
    // to be registered already goes over to that one.
    void Publish()
    {
        bool replaced = false;
        for (uint32_t i = 0; i < templates_.count(); ++i) {
            ObjTemplate* tmpl = templates_[i].tmpl;
            if (!templates_[i].isPrivate)
                continue;
            ObjTemplate* registered = ObjTemplatePublish(tmpl);
            templates_[i].isPrivate = registered != tmpl;
            if (registered != tmpl)
                tmpl->replacement = registered;
            replaced = replaced || registered != tmpl;
        }
        if (!replaced)
            return;
        for (uint32_t i = 0; i < objects_.count(); ++i)
            ObjFollowReplacement(objects_[i]);
        for (uint32_t i = 0; i < templates_.count(); ++i) {
            if (templates_[i].isPrivate)
                ObjTemplateFreePrivate(templates_[i].tmpl);
        }
    }

    const uint8_t* at_;
    const uint8_t* end_;
    uint64_t allowance_;
    Growing<void*, 128> objects_;
    Growing<Met, 16> templates_;
};

// Bytes of the whole form, 0 when there can be none.
uint32_t Measure(const void* handle)
{
    Writer writer;
    if (!writer.WriteValue(handle, 1) || writer.length() > UINT32_MAX - ENVELOPE)
        return 0;
    return static_cast<uint32_t>(writer.length()) + ENVELOPE;
}

// Writes the whole form; its bytes, 0 when there can be none or it does not fit. *place: see
// Writer::place.
uint32_t
Write(const void* handle, uint8_t* dest, uint32_t room, const void* number, uint32_t* place)
{
    if (room < ENVELOPE)
        return 0;
    Writer writer(dest + ENVELOPE, room - ENVELOPE, number);
    if (!writer.WriteValue(handle, 1) || !writer.fits())
        return 0;
    const uint32_t length = static_cast<uint32_t>(writer.length()) + ENVELOPE;
    Put32(dest, SIGNATURE);
    Put32(dest + AT_VERSION, VERSION);
    Put32(dest + AT_LENGTH, length);
    Put32(dest + AT_CRC, crc32::Of(dest + ENVELOPE, length - ENVELOPE));
    if (place)
        *place = static_cast<uint32_t>(writer.place());
    return length;
}

} // namespace

uint32_t ObjSerializedSize(const void* handle)
{
    return handle ? Measure(handle) : 0;
}

NimBool ObjSerializeToMemory(const void* handle, void* dest, uint32_t* size)
{
    if (size)
        *size = 0;
    if (!handle || !dest || FaultFails(FAULT_SERIALIZE))
        return FALSE;
    // Sized first: what cannot be written must not have been written halfway.
    const uint32_t length = Measure(handle);
    if (!length || !Write(handle, static_cast<uint8_t*>(dest), length, nullptr, nullptr))
        return FALSE;
    if (size)
        *size = length;
    return TRUE;
}

NimBool ObjSerializeInto(
    const void* handle, void* scratch, uint32_t room, uint32_t* size, const void* number,
    uint32_t* place)
{
    if (place)
        *place = 0;
    const bool good = handle && scratch && !FaultFails(FAULT_SERIALIZE);
    const uint32_t length =
        good ? Write(handle, static_cast<uint8_t*>(scratch), room, number, place) : 0;
    if (size)
        *size = length;
    return length ? TRUE : FALSE;
}

NimBool ObjSerializedPutNumber(void* form, uint32_t room, uint32_t place, uint32_t value)
{
    if (!form || room < ENVELOPE || FaultFails(FAULT_SERIALIZE))
        return FALSE;
    auto* bytes = static_cast<uint8_t*>(form);
    const uint32_t length = Get32(bytes + AT_LENGTH);
    constexpr uint32_t WIDTH = sizeof value;
    if (length > room || length < ENVELOPE + WIDTH || place < ENVELOPE || place > length - WIDTH)
        return FALSE;
    const uint32_t change = Get32(bytes + place) ^ value;
    Put32(bytes + place, value);
    Put32(bytes + AT_CRC, Get32(bytes + AT_CRC) ^ crc32::OfChange(change, length - WIDTH - place));
    return TRUE;
}

NimBool ObjReconstructFromMemory(void** out, const void* src)
{
    return ObjReconstructFromMemorySized(out, src, UINT32_MAX);
}

NimBool ObjReconstructFromMemorySized(void** out, const void* src, uint32_t available)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!src || available <= ENVELOPE || FaultFails(FAULT_RECONSTRUCT))
        return FALSE;
    const auto* bytes = static_cast<const uint8_t*>(src);
    uint32_t length = Get32(bytes + AT_LENGTH);
    if (Get32(bytes) != SIGNATURE || Get32(bytes + AT_VERSION) != VERSION || length <= ENVELOPE ||
        length > available)
        return FALSE;
    if (Get32(bytes + AT_CRC) != crc32::Of(bytes + ENVELOPE, length - ENVELOPE))
        return FALSE;
    Reader reader(bytes + ENVELOPE, bytes + length);
    *out = reader.ReadRoot();
    return *out ? TRUE : FALSE;
}
