// Reads a block file by byte offsets. All integers in it are little-endian.
//
//   control block, at 0               block t, at (t + 1) * 16384, as a node
//   offset  size   field              offset   size  field
//   0       4      magic              0        4     parent, 0xFFFFFFFF for the root
//   4       4      block size         4        4     next node of the level
//   8       4      block count        8        4     previous node of the level
//   12      4      free chain head    12       4     1 leaf, 0 branch
//   16      24     (means nothing)    16       4     1 when values lie in the heap
//   40      16128  the description    20       4     entry count
//                                     24       8     (means nothing)
//                                     32       24 n  entries
//
//   entry: record id 0, value or length 8, heap offset 12, record offset or child block 16
#include "block_file_inspector.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "nim/list.h"
#include "nim/object.h"

namespace {

constexpr uint32_t BLOCK_SIZE = 16384;
constexpr uint32_t CONTROL_MAGIC = 0xc9251dd9;
constexpr uint32_t DESCRIPTION_OFFSET = 40;
constexpr uint32_t DESCRIPTION_SIZE = 16128;
constexpr uint32_t NODE_HEADER = 32;
constexpr uint32_t ENTRY_SIZE = 24;
constexpr uint32_t MAX_ENTRIES = (BLOCK_SIZE - NODE_HEADER) / ENTRY_SIZE;
constexpr uint32_t NO_BLOCK = 0xFFFFFFFF;

constexpr uint32_t TABLE_MAGIC = 0xca8ab522;
constexpr uint32_t FIELD_MAGIC = 0xca8ec4a2;

// The description as it is rebuilt: template "s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;".
struct TableDescription {
    char* name;
    void* records;
    void* blockFile;
    void* database;
    char* format;
    char* fields;
    uint32_t recordMagic;
    uint32_t highestId;
    uint32_t fixedSize;
    uint32_t idOffset;
    ObjData indexedFlags;
    int32_t hasTextIndex;
    int32_t changed;
    int32_t companionFiles;
    void* fieldList;
};
static_assert(sizeof(TableDescription) == 104);

// Template "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;".
struct FieldDescription {
    char* name;
    int32_t type;
    int32_t recordOffset;
    int32_t indexed;
    int32_t unique;
    int32_t caseSensitive;
    uint32_t maximumKey;
    uint32_t root;
    uint32_t firstLeaf;
    uint32_t lastLeaf;
    int32_t keyType;
    int32_t levels;
    void* table;
    void* cursors;
};
static_assert(sizeof(FieldDescription) == 72);

[[noreturn]] void Fail(const std::string& what)
{
    throw std::runtime_error("block file: " + what);
}

uint32_t Word(const uint8_t* bytes)
{
    return bytes[0] | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

class BlockFile {
  public:
    explicit BlockFile(const std::string& path) : file_(fopen(path.c_str(), "rb"), &fclose)
    {
        if (!file_)
            Fail("cannot open " + path);
        ReadAt(0, control_);
        if (Word(control_) != CONTROL_MAGIC || Word(control_ + 4) != BLOCK_SIZE)
            Fail(path + " does not begin with a control block");
        if (fseeko(file_.get(), 0, SEEK_END) != 0)
            Fail("cannot seek");
        bytes_ = uint64_t(ftello(file_.get()));
    }

    uint64_t Bytes() const { return bytes_; }
    uint32_t Blocks() const { return Word(control_ + 8); }
    uint32_t FreeChain() const { return Word(control_ + 12); }
    const uint8_t* Description() const { return control_ + DESCRIPTION_OFFSET; }

    void Read(uint32_t block, uint8_t (&bytes)[BLOCK_SIZE])
    {
        if (block >= Blocks())
            Fail("block " + std::to_string(block) + " was never allocated");
        ReadAt((uint64_t(block) + 1) * BLOCK_SIZE, bytes);
    }

  private:
    void ReadAt(uint64_t offset, uint8_t (&bytes)[BLOCK_SIZE])
    {
        if (fseeko(file_.get(), off_t(offset), SEEK_SET) != 0 ||
            fread(bytes, 1, BLOCK_SIZE, file_.get()) != BLOCK_SIZE)
            Fail("short read at " + std::to_string(offset));
    }

    std::unique_ptr<FILE, int (*)(FILE*)> file_;
    uint64_t bytes_ = 0;
    uint8_t control_[BLOCK_SIZE];
};

// One level of a tree, left to right, as the level above lists it.
using Level = std::vector<uint32_t>;

// Counts the nodes of a level into the facts and returns the level below; empty below the leaves.
Level CountLevel(BlockFile& file, const Level& level, IndexFacts& facts)
{
    Level below;
    for (size_t i = 0; i < level.size(); ++i) {
        uint8_t node[BLOCK_SIZE];
        file.Read(level[i], node);
        uint32_t entries = Word(node + 20);
        if (entries == 0 || entries > MAX_ENTRIES)
            Fail("bad entry count in node " + std::to_string(level[i]));
        if (Word(node + 4) != (i + 1 < level.size() ? level[i + 1] : NO_BLOCK) ||
            Word(node + 8) != (i > 0 ? level[i - 1] : NO_BLOCK))
            Fail("bad sibling in node " + std::to_string(level[i]));

        const uint8_t* last = node + NODE_HEADER + size_t(entries - 1) * ENTRY_SIZE;
        if (Word(node + 12)) {
            ++facts.leaves;
            facts.entries += entries;
            facts.bytesUsed += NODE_HEADER + entries * ENTRY_SIZE;
            if (Word(node + 16))
                facts.bytesUsed += Word(last + 12);
        } else {
            ++facts.branches;
            for (const uint8_t* entry = node + NODE_HEADER; entry <= last; entry += ENTRY_SIZE)
                below.push_back(Word(entry + 16));
        }
        if (facts.branches + facts.leaves > file.Blocks())
            Fail("a tree of more nodes than the file has blocks");
    }
    if (!below.empty() && facts.leaves)
        Fail("leaves and branches on one level");
    return below;
}

IndexFacts CountIndex(BlockFile& file, const FieldDescription& field)
{
    IndexFacts facts;
    facts.field = field.name;
    Level level;
    if (field.root != NO_BLOCK)
        level.push_back(field.root);
    while (!level.empty()) {
        ++facts.levels;
        Level below = CountLevel(file, level, facts);
        if (below.empty() && (level.front() != field.firstLeaf || level.back() != field.lastLeaf))
            Fail("the leaves of " + facts.field + " do not begin and end where they should");
        level.swap(below);
    }
    if (facts.levels != field.levels)
        Fail(facts.field + " has not the levels it is said to have");
    return facts;
}

uint32_t CountFreeChain(BlockFile& file)
{
    uint32_t count = 0;
    for (uint32_t block = file.FreeChain(); block != NO_BLOCK; ++count) {
        if (count == file.Blocks())
            Fail("endless free chain");
        uint8_t bytes[BLOCK_SIZE];
        file.Read(block, bytes);
        block = Word(bytes);
    }
    return count;
}

// The rebuilt description. Table and fields hold each other: the ring is opened before the table
// is given back, or nothing of it would ever be freed.
class Description {
  public:
    explicit Description(const uint8_t* bytes)
    {
        ObjReconstructFromMemorySized(&handle_, bytes, DESCRIPTION_SIZE);
        if (ObjGetMagic(handle_) != TABLE_MAGIC) {
            ObjReleaseInternal(&handle_);
            Fail("no sound description of a table");
        }
    }
    Description(const Description&) = delete;
    Description& operator=(const Description&) = delete;
    ~Description()
    {
        for (uint32_t i = 0; FieldDescription* field = Field(i); ++i)
            ObjRelease(field->table);
        ObjReleaseInternal(&handle_);
    }

    const TableDescription& Table() const { return *static_cast<TableDescription*>(handle_); }

    FieldDescription* Field(uint32_t number) const
    {
        void* field = nullptr;
        ListGetNthItem(&field, Table().fieldList, number);
        return ObjGetMagic(field) == FIELD_MAGIC ? static_cast<FieldDescription*>(field) : nullptr;
    }

  private:
    void* handle_ = nullptr;
};

} // namespace

double IndexFacts::LeafFill() const
{
    return leaves ? double(bytesUsed) / (double(leaves) * BLOCK_SIZE) : 0;
}

uint64_t BlockFileFacts::Nodes() const
{
    uint64_t nodes = 0;
    for (const IndexFacts& index : indexes)
        nodes += index.branches + index.leaves;
    return nodes;
}

BlockFileFacts InspectBlockFile(const std::string& path)
{
    BlockFile file(path);
    Description description(file.Description());

    BlockFileFacts facts;
    facts.bytes = file.Bytes();
    facts.blocks = file.Blocks();
    facts.freeBlocks = CountFreeChain(file);
    facts.highestId = description.Table().highestId;
    for (uint32_t i = 0; const FieldDescription* field = description.Field(i); ++i) {
        if (field->indexed)
            facts.indexes.push_back(CountIndex(file, *field));
    }
    return facts;
}
