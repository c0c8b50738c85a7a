// table_model.cpp: random schemas and rows, and the model of a table of them. Nothing here uses the
// code that is tested, but for building and reading the objects that go in and come out.

#include "database/table_model.h"

#include <algorithm>

#include "nim/list.h"
#include "support/file_bytes.h"

namespace {

constexpr uint32_t LONGEST_KEY = 8168; // NUL included
// Two keys up to this length always fit into a node together; longer ones may be refused for want
// of room, which no model can tell.
constexpr uint32_t LONGEST_SAFE_KEY = 8152;
constexpr uint32_t WINDOW = 0x7fffffff;
constexpr uint32_t PIECE = 8;
constexpr uint32_t MAX_FIELDS = 40;

std::string Little(uint64_t value, size_t width)
{
    std::string bytes;
    for (size_t i = 0; i < width; ++i)
        bytes.push_back(static_cast<char>(value >> (8 * i)));
    return bytes;
}

std::string Big(uint64_t value, size_t width)
{
    std::string bytes = Little(value, width);
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

// Spreads neighbouring numbers.
uint64_t Mix(uint64_t n)
{
    n ^= n >> 31;
    n *= 0x9e3779b97f4a7c15;
    n ^= n >> 29;
    n *= 0xbf58476d1ce4e5b9;
    return n ^ n >> 32;
}

std::string Folded(std::string text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// ---- schemas -----------------------------------------------------------------------------------

bool CanBeIndexed(char letter)
{
    return std::string("isnqu").find(letter) != std::string::npos;
}

// Flags may be shortened, and their case does not count.
std::string FlagText(const char* flag, size_t least, Random& random)
{
    std::string text(flag);
    if (random.OneIn(3))
        text.resize(least + random.Below(text.size() - least + 1));
    for (char& c : text) {
        if (random.OneIn(4) && c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return (random.OneIn(2) ? " " : "") + text;
}

uint32_t LongestText(Random& random)
{
    switch (random.Below(16)) {
    case 0:
        return LONGEST_SAFE_KEY - 1;
    case 1:
    case 2:
        return 2500;
    case 3:
    case 4:
    case 5:
        return 400;
    default:
        return 4 + static_cast<uint32_t>(random.Below(60));
    }
}

FieldSpec MakeField(char letter, uint32_t indexedPercent, Random& random)
{
    FieldSpec field;
    field.letter = letter;
    field.arraySize =
        letter == 'n' ? 1 + static_cast<uint32_t>(random.Below(random.OneIn(8) ? 600 : 40)) : 0;
    field.indexed = random.Below(100) < indexedPercent;
    field.unique = random.OneIn(4);
    field.caseSensitive = random.OneIn(2);
    field.lowest = static_cast<int32_t>(INT32_MIN + static_cast<int64_t>(random.Below(0x80000000)));
    field.longest = LongestText(random);
    field.commonStart = random.OneIn(4);
    const uint64_t domains[] = {3, 40, 1000, UINT64_MAX};
    field.domain = field.unique && field.indexed ? UINT64_MAX : domains[random.Below(4)];
    return field;
}

std::string FlagsText(const FieldSpec& field, Random& random)
{
    std::vector<std::string> flags;
    if (field.indexed)
        flags.push_back(FlagText("Indexed", 1, random));
    if (field.unique)
        flags.push_back(FlagText("Unique", 1, random));
    if (field.caseSensitive)
        flags.push_back(FlagText("Case Sensitive", 1, random));
    std::shuffle(flags.begin(), flags.end(), std::mt19937_64(random.Word()));
    std::string text;
    for (const std::string& flag : flags)
        text += ";" + flag;
    return text;
}

} // namespace

std::vector<size_t> Schema::Indexed() const
{
    std::vector<size_t> result;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (fields[i].indexed)
            result.push_back(i);
    }
    return result;
}

Schema MakeSchema(Random& random, bool large)
{
    Schema schema;
    const uint64_t most = large ? 8 : random.OneIn(8) ? MAX_FIELDS : random.OneIn(2) ? 12 : 6;
    const size_t count = 1 + random.Below(most);
    const auto indexedPercent =
        static_cast<uint32_t>(random.OneIn(5) ? 100 : 20 + random.Below(60));
    schema.idField = random.Below(count);
    uint32_t slotEnd = 4;
    for (size_t i = 0; i < count; ++i) {
        const bool isId = i == schema.idField;
        FieldSpec field =
            MakeField(isId ? 'i' : "bisodnqussii"[random.Below(12)], indexedPercent, random);
        field.isId = isId;
        field.name = isId ? (random.OneIn(2) ? "Id" : "iD") : "Field " + std::to_string(i);
        schema.format += field.letter + (field.arraySize ? std::to_string(field.arraySize) : "");
        schema.format += i + 1 < count || random.OneIn(2) ? ";" : "";
        schema.fieldsText += (i ? (random.OneIn(2) ? ", " : ",") : "") + field.name;
        schema.fieldsText += FlagsText(field, random);
        // What the flags come to.
        field.indexed = isId || (field.indexed && CanBeIndexed(field.letter));
        field.unique = field.unique && !isId;
        slotEnd += field.SlotWidth();
        schema.fields.push_back(field);
    }
    schema.fixedSize = std::max<uint32_t>(16, slotEnd);
    schema.maximumLive = large             ? 30'000
                         : random.OneIn(3) ? 2500
                                           : 20 + static_cast<uint32_t>(random.Below(900));
    return schema;
}

// ---- values ------------------------------------------------------------------------------------

namespace {

// A text of number n: not empty, without a NUL, as long as its number says.
std::string MakeText(const FieldSpec& field, uint64_t n, Random& random)
{
    const uint64_t mixed = Mix(n);
    std::string text;
    for (uint64_t rest = n; text.size() < PIECE; rest /= 97)
        text.push_back(static_cast<char>(1 + (rest % 97 + mixed) % 255));
    text += std::to_string(n);
    const auto length = static_cast<size_t>(1 + (mixed >> 20) % field.longest);
    std::string filling;
    for (uint64_t i = text.size(); i < length; ++i)
        filling.push_back(static_cast<char>('A' + (i + (field.commonStart ? 0 : mixed)) % 57));
    text = field.commonStart ? filling + text : text + filling;
    text.resize(std::min<size_t>(text.size(), LONGEST_SAFE_KEY - 1));
    if (!field.caseSensitive) {
        for (char& c : text) {
            if (c >= 'a' && c <= 'z' && random.OneIn(3))
                c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return text;
}

// A nested object of number n.
Held MakeNested(const FieldSpec& field, uint64_t n, Random& random)
{
    switch (n % 6) {
    case 0:
        return Held(ObjIntegerNew(static_cast<int32_t>(n)));
    case 1:
        return Held(ObjInt64New(static_cast<int64_t>(Mix(n))));
    case 2:
        return Held(ObjStringNew(MakeText(field, n, random).c_str()));
    case 3: {
        void* oData = nullptr;
        const std::string bytes(n % 300, static_cast<char>(n));
        ObjDataFieldCreate(&oData, bytes.data(), static_cast<uint32_t>(bytes.size()));
        return Held(oData);
    }
    case 4: {
        Held list(ListNewFromPool(0, MemGetDefaultPoolId()));
        for (uint64_t i = 0; i < n % 5; ++i) {
            void* oItem = ObjIntegerNew(static_cast<int32_t>(i));
            ListPushLastItemInternal(list.get(), &oItem);
        }
        return list;
    }
    default: {
        Instance object(0xca444444, "s;o;i;");
        object.setText(0, "nested");
        object.at<void*>(1) = ObjStringNew(std::to_string(n).c_str());
        object.at<int32_t>(2) = static_cast<int32_t>(n);
        return Held(ObjIncRefCount(object.get()));
    }
    }
}

std::string Serialised(const void* object)
{
    std::string bytes(ObjSerializedSize(object), '\0');
    uint32_t size = 0;
    EXPECT_EQ(ObjSerializeToMemory(object, bytes.data(), &size), 1u);
    EXPECT_EQ(size, bytes.size());
    return bytes;
}

// An array holds a text: up to its end, or to a NUL with anything behind it.
std::string MakeArray(const FieldSpec& field, uint64_t n, Random& random)
{
    std::string bytes = MakeText(field, n, random);
    const size_t length = bytes.size();
    bytes.resize(field.arraySize, '\0');
    for (size_t i = length + 1; i < field.arraySize; ++i)
        bytes[i] = static_cast<char>(random.Below(256));
    return bytes;
}

} // namespace

Value MakeValue(const FieldSpec& field, uint64_t n, Random& random)
{
    switch (field.letter) {
    case 'b':
        return {false, Little(random.OneIn(9) ? random.Word() : n % 2, 4)};
    case 'i':
        return {false, Little(static_cast<uint32_t>(field.lowest) + Mix(n) % WINDOW, 4)};
    case 'q':
        return {false, Little(Mix(n), 8)};
    case 'u': {
        std::string bytes;
        for (uint64_t i = 0; i < 4; ++i)
            bytes += Little(field.commonStart && i < 3 ? 7 : Mix(n + (i << 40)), 8);
        return {false, bytes};
    }
    case 's':
        if (!field.indexed && n % 7 == 0)
            return {true, ""};
        if (n % 97 == 5 && !field.unique)
            return {false, ""};
        return {false, MakeText(field, n, random)};
    case 'o':
        if (n % 4 == 0)
            return {true, ""};
        return {false, Serialised(MakeNested(field, Mix(n), random).get())};
    case 'd': {
        std::string bytes(Mix(n) % field.longest, '\0');
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(n * 31 + i);
        return {false, bytes};
    }
    default:
        return {false, MakeArray(field, n, random)};
    }
}

Held MakeObject(const Schema& schema, ObjTemplate* pTemplate, const Row& row)
{
    Held object;
    EXPECT_EQ(
        ObjTemplateCreateInstanceFromPool(object.out(), pTemplate, MemGetDefaultPoolId()), 1u);
    const ObjDbField* pFields = ObjGetDbDataFromTemplate(pTemplate)->fields;
    for (size_t i = 0; i < schema.fields.size(); ++i) {
        char* pItem = static_cast<char*>(object.get()) + pFields[i].objectOffset;
        const Value& value = row[i];
        switch (schema.fields[i].letter) {
        case 's':
            *reinterpret_cast<char**>(pItem) = value.absent ? nullptr : PoolText(value.bytes);
            break;
        case 'o':
            if (!value.absent) {
                EXPECT_EQ(
                    ObjReconstructFromMemory(reinterpret_cast<void**>(pItem), value.bytes.data()),
                    1u);
            }
            break;
        case 'd':
            *reinterpret_cast<ObjData*>(pItem) = PoolData(value.bytes);
            break;
        default:
            std::memcpy(pItem, value.bytes.data(), value.bytes.size());
            break;
        }
    }
    return object;
}

Row RowOf(const Schema& schema, const void* object)
{
    Row row;
    const ObjDbField* pFields = ObjGetDbData(object)->fields;
    for (size_t i = 0; i < schema.fields.size(); ++i) {
        const FieldSpec& field = schema.fields[i];
        const char* pItem = static_cast<const char*>(object) + pFields[i].objectOffset;
        Value value;
        switch (field.letter) {
        case 's': {
            const char* text = *reinterpret_cast<char* const*>(pItem);
            value = {text == nullptr, text ? text : ""};
            break;
        }
        case 'o': {
            const void* oNested = *reinterpret_cast<void* const*>(pItem);
            value = {oNested == nullptr, oNested ? Serialised(oNested) : ""};
            break;
        }
        case 'd':
            value.bytes = DataBytes(*reinterpret_cast<const ObjData*>(pItem));
            break;
        default:
            value.bytes.assign(pItem, field.letter == 'n' ? field.arraySize : field.SlotWidth());
            break;
        }
        row.push_back(std::move(value));
    }
    return row;
}

Row WithoutVariableFields(const Schema& schema, Row row)
{
    for (size_t i = 0; i < row.size(); ++i) {
        const FieldSpec& field = schema.fields[i];
        if (field.IsVariable())
            row[i] = {
                field.letter == 's' || field.letter == 'o', std::string(field.arraySize, '\0')};
    }
    return row;
}

uint32_t RecordLength(const Schema& schema, const Row& row)
{
    size_t length = schema.fixedSize;
    for (size_t i = 0; i < row.size(); ++i) {
        const FieldSpec& field = schema.fields[i];
        if (field.IsVariable() && !row[i].absent)
            length += row[i].bytes.size() + (field.letter == 's' ? 1 : 0);
    }
    return static_cast<uint32_t>(length);
}

Held KeyObject(const FieldSpec& field, const Value& value)
{
    if (field.isId)
        return Held();
    switch (field.letter) {
    case 'i':
        return Held(ObjIntegerNew(static_cast<int32_t>(U32At(value.bytes, 0))));
    case 'q':
        return Held(ObjInt64New(static_cast<int64_t>(U64At(value.bytes, 0))));
    case 'u':
        return Held(ObjUniqueNew(reinterpret_cast<const UniqueId*>(value.bytes.data())));
    default: // a text ends at its first NUL
        return Held(ObjStringNew(value.bytes.substr(0, value.bytes.find('\0')).c_str()));
    }
}

bool IsSearchable(const FieldSpec& field, const Value& value)
{
    return (field.letter != 's' && field.letter != 'n') ||
           (!value.absent && value.bytes[0] != '\0');
}

uint32_t IdOf(const Schema& schema, const Row& row)
{
    return U32At(row[schema.idField].bytes, 0);
}

void SetId(const Schema& schema, Row* pRow, uint32_t id)
{
    (*pRow)[schema.idField] = {false, Little(id, 4)};
}

// ---- the model ---------------------------------------------------------------------------------

OrderedKey TableModel::KeyOf(size_t field, const Value& value, uint32_t id) const
{
    const FieldSpec& spec = schema_.fields[field];
    if (spec.isId)
        return {"", id};
    switch (spec.letter) {
    case 'i':
        return {Big(U32At(value.bytes, 0) - static_cast<uint32_t>(spec.lowest), 4), id};
    case 'q':
        return {Big(U64At(value.bytes, 0) ^ uint64_t{1} << 63, 8), id};
    case 'u':
        return {value.bytes, id};
    default: {
        const std::string text = value.bytes.substr(0, value.bytes.find('\0'));
        return {spec.caseSensitive ? text : Folded(text), id};
    }
    }
}

OrderedKey TableModel::KeyOf(size_t field, uint32_t id) const
{
    return KeyOf(field, records_.at(id).row[field], id);
}

bool TableModel::Refuses(uint32_t id, const Row& row, bool bNew) const
{
    if (bNew && records_.count(id))
        return true;
    for (const size_t field : schema_.Indexed()) {
        const FieldSpec& spec = schema_.fields[field];
        if (spec.letter == 's' && (row[field].absent || row[field].bytes.size() + 1 > LONGEST_KEY))
            return true;
        if (!spec.unique)
            continue;
        const std::string value = KeyOf(field, row[field], id).first;
        const auto at = indexes_[field].lower_bound({value, 0});
        if (at != indexes_[field].end() && at->first == value && at->second != id)
            return true;
    }
    return false;
}

void TableModel::EnterKeys(uint32_t id)
{
    for (const size_t field : schema_.Indexed())
        EXPECT_TRUE(indexes_[field].insert(KeyOf(field, id)).second);
}

void TableModel::TakeKeys(uint32_t id)
{
    for (const size_t field : schema_.Indexed())
        EXPECT_EQ(indexes_[field].erase(KeyOf(field, id)), 1u);
}

void TableModel::Add(uint32_t id, const Row& row)
{
    Record record = {row, static_cast<uint32_t>(fileEnd_), RecordLength(schema_, row)};
    SetId(schema_, &record.row, id);
    fileEnd_ += record.length;
    records_[id] = std::move(record);
    highest_ = std::max(highest_, id);
    stored_ = highest_;
    EnterKeys(id);
}

void TableModel::Modify(uint32_t id, const Row& row)
{
    TakeKeys(id);
    Record& record = records_.at(id);
    const uint32_t length = RecordLength(schema_, row);
    if (length > record.length && highest_ != 1)
        record.offset = static_cast<uint32_t>(fileEnd_);
    record.row = row;
    record.length = length;
    SetId(schema_, &record.row, id);
    fileEnd_ = std::max<uint64_t>(fileEnd_, uint64_t{record.offset} + length);
    stored_ = highest_;
    EnterKeys(id);
}

void TableModel::Delete(uint32_t id)
{
    TakeKeys(id);
    records_.erase(id);
    stored_ = highest_;
}
