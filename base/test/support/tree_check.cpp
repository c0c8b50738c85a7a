// tree_check.cpp: the whole-tree check of tree_check.h. Every number below that says where a word
// lies is written by hand; the library's own layout constants are not used.

#include "support/tree_check.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "database/indexinternal.h"
#include "nim/filesys.h"
#include "nim/list.h"
#include "nim/object.h"
#include "support/file_bytes.h"

namespace {

constexpr uint32_t NONE = 0xFFFFFFFF;
constexpr size_t MAX_PROBLEMS = 20;

// ---- where the bytes come from ---------------------------------------------------------------

class Blocks {
  public:
    virtual ~Blocks() = default;
    // The 16384 bytes of a block; what the file does not hold is zero.
    virtual std::string Read(uint32_t id) = 0;

    int32_t count = 0;
    uint32_t freeHead = NONE;
};

class FileBlocks : public Blocks {
  public:
    explicit FileBlocks(const std::string& path) : in_(path, std::ios::binary)
    {
        const std::string header = ReadAt(0, 16);
        count = static_cast<int32_t>(U32At(header, 8));
        freeHead = U32At(header, 12);
    }
    std::string Read(uint32_t id) override { return ReadAt((uint64_t{id} + 1) * 16384, 16384); }
    std::string UserData() { return ReadAt(40, 16128); }

  private:
    std::string ReadAt(uint64_t offset, size_t size)
    {
        std::string bytes(size, '\0');
        in_.clear();
        in_.seekg(static_cast<std::streamoff>(offset));
        in_.read(bytes.data(), static_cast<std::streamsize>(size));
        return bytes;
    }

    std::ifstream in_;
};

// Reads past the cache, through the handle in the control block.
class OpenBlocks : public Blocks {
  public:
    explicit OpenBlocks(void* oBlck)
    {
        const auto* body = static_cast<const char*>(oBlck);
        memcpy(&count, body + 8, 4);
        memcpy(&freeHead, body + 12, 4);
        memcpy(&handle_, body + 24, 8);
    }
    std::string Read(uint32_t id) override
    {
        std::string bytes(16384, '\0');
        uint32_t moved = 0;
        if (FileSysSeek(handle_, (int64_t{id} + 1) * 16384))
            FileSysRead(&moved, handle_, bytes.data(), 16384);
        std::fill(bytes.begin() + moved, bytes.end(), '\0');
        return bytes;
    }

  private:
    void* handle_ = nullptr;
};

// ---- the order of keys -----------------------------------------------------------------------

int Sign(int64_t value)
{
    return value < 0 ? -1 : value > 0;
}

std::string TextOf(const std::string& value, bool fold)
{
    std::string text = value.substr(0, value.find('\0'));
    if (fold) {
        for (char& c : text) {
            if (c >= 'A' && c <= 'Z')
                c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

int Wrapping(uint32_t left, uint32_t right)
{
    return Sign(static_cast<int32_t>(left - right));
}

int CompareBytes(const std::string& left, const std::string& right)
{
    const int first = memcmp(left.data(), right.data(), std::min(left.size(), right.size()));
    return first ? Sign(first)
                 : Sign(static_cast<int64_t>(left.size()) - static_cast<int64_t>(right.size()));
}

int CompareValues(int32_t keyType, const TreeEntry& left, const TreeEntry& right)
{
    switch (keyType) {
    case 0:
        return Wrapping(left.id, right.id);
    case 3:
        return Wrapping(U32At(left.value, 0), U32At(right.value, 0));
    case 4: {
        const auto l = static_cast<int64_t>(U64At(left.value, 0));
        const auto r = static_cast<int64_t>(U64At(right.value, 0));
        return l < r ? -1 : l > r;
    }
    case 4097:
        return CompareBytes(TextOf(left.value, false), TextOf(right.value, false));
    case 4098:
        return CompareBytes(TextOf(left.value, true), TextOf(right.value, true));
    default:
        return CompareBytes(left.value, right.value);
    }
}

// ---- one index -------------------------------------------------------------------------------

struct Shape {
    std::string name;
    int32_t keyType;
    bool unique;
    uint32_t root;
    uint32_t firstLeaf;
    uint32_t lastLeaf;
    int32_t levels;
};

struct Expected {
    uint32_t id;
    uint32_t parent;
    bool hasLowest;
    TreeEntry lowest;
};

class IndexCheck {
  public:
    IndexCheck(TreeReport& report, Blocks& blocks, const Shape& shape)
        : report_(report), blocks_(blocks), shape_(shape)
    {
        index_.field = shape.name;
    }

    void Run()
    {
        if (shape_.root == NONE) {
            Expect(shape_.firstLeaf == NONE && shape_.lastLeaf == NONE, "empty, but with leaves");
            Expect(shape_.levels == 0, "empty, but with levels");
        } else {
            RunLevels();
        }
        report_.indexes.push_back(std::move(index_));
    }

  private:
    void Problem(const std::string& text)
    {
        if (report_.problems.size() < MAX_PROBLEMS)
            report_.problems.push_back("index '" + shape_.name + "': " + text);
    }
    void Expect(bool holds, const std::string& text)
    {
        if (!holds)
            Problem(text);
    }
    bool Heap() const { return (shape_.keyType & 0x1000) != 0; }

    void RunLevels()
    {
        std::vector<Expected> level = {{shape_.root, NONE, false, {}}};
        int32_t levels = 0;
        while (!level.empty()) {
            ++levels;
            index_.perLevel.push_back(static_cast<uint32_t>(level.size()));
            level = RunLevel(level);
        }
        Expect(
            levels == shape_.levels,
            "has " + std::to_string(levels) + " levels, says " + std::to_string(shape_.levels));
    }

    // Checks the nodes of one level; their children are the next one.
    std::vector<Expected> RunLevel(const std::vector<Expected>& level)
    {
        std::vector<Expected> children;
        bool haveLast = false;
        TreeEntry last = {};
        int leaves = -1;
        for (size_t i = 0; i < level.size(); ++i) {
            const uint32_t id = level[i].id;
            const std::string at = "node " + std::to_string(id) + ": ";
            if (id >= static_cast<uint32_t>(blocks_.count) || !seen_.insert(id).second) {
                Problem(at + "out of range, or met twice");
                return {};
            }
            index_.nodes.push_back(id);
            const std::string node = blocks_.Read(id);
            Expect(U32At(node, 0) == level[i].parent, at + "wrong parent");
            Expect(
                U32At(node, 4) == (i + 1 < level.size() ? level[i + 1].id : NONE),
                at + "wrong next node");
            Expect(U32At(node, 8) == (i > 0 ? level[i - 1].id : NONE), at + "wrong previous node");
            const uint32_t leaf = U32At(node, 12);
            Expect(leaf <= 1, at + "wrong leaf flag");
            if (leaves < 0)
                leaves = static_cast<int>(leaf);
            if (static_cast<uint32_t>(leaves) != leaf) {
                Problem(at + "leaves and branches on one level");
                return {};
            }
            const std::vector<TreeEntry> entries = ReadEntries(node, at);
            if (entries.empty())
                return {};
            if (level[i].hasLowest) {
                Expect(
                    entries[0].value == level[i].lowest.value &&
                        entries[0].id == level[i].lowest.id,
                    at + "its parent's entry is not its lowest key");
            }
            for (const TreeEntry& entry : entries) {
                if (haveLast)
                    CheckOrder(last, entry, at);
                last = entry;
                haveLast = true;
                if (!leaf)
                    children.push_back({entry.offset, id, true, entry});
                else
                    index_.entries.push_back(entry);
            }
        }
        if (leaves == 1) {
            Expect(shape_.firstLeaf == level.front().id, "wrong first leaf");
            Expect(shape_.lastLeaf == level.back().id, "wrong last leaf");
        }
        return children;
    }

    void CheckOrder(const TreeEntry& left, const TreeEntry& right, const std::string& at)
    {
        const int order = CompareValues(shape_.keyType, left, right);
        if (order > 0)
            Problem(at + "keys out of order");
        else if (order == 0 && (shape_.unique || Wrapping(left.id, right.id) >= 0))
            Problem(at + "equal keys, or equal values with ids out of order");
    }

    // The entries of a node; none when it cannot be read as one.
    std::vector<TreeEntry> ReadEntries(const std::string& node, const std::string& at)
    {
        Expect(U32At(node, 16) == (Heap() ? 1u : 0u), at + "wrong heap flag");
        const auto count = static_cast<int32_t>(U32At(node, 20));
        if (count < 1 || count > 681) {
            Problem(at + "has " + std::to_string(count) + " entries");
            return {};
        }
        const size_t entriesEnd = 32 + 24 * static_cast<size_t>(count);
        std::vector<TreeEntry> entries;
        uint64_t sum = 0;
        for (int32_t i = 0; i < count; ++i) {
            const size_t p = 32 + 24 * static_cast<size_t>(i);
            TreeEntry entry{"", U32At(node, p), U32At(node, p + 16)};
            if (Heap()) {
                const uint32_t length = U32At(node, p + 8);
                sum += length;
                if (sum != U32At(node, p + 12)) {
                    Problem(at + "heap offset " + std::to_string(i) + " is no running sum");
                    return {};
                }
                if (sum + entriesEnd > 16384) {
                    Problem(at + "heap and entries touch");
                    return {};
                }
                entry.value = node.substr(16384 - sum, length);
            } else if (shape_.keyType == 3) {
                entry.value = node.substr(p + 8, 4);
            } else if (shape_.keyType == 4) {
                entry.value = node.substr(p + 8, 8);
            }
            entries.push_back(std::move(entry));
        }
        return entries;
    }

    TreeReport& report_;
    Blocks& blocks_;
    const Shape& shape_;
    IndexReport index_;
    std::set<uint32_t> seen_;
};

// ---- one table -------------------------------------------------------------------------------

Shape ShapeOf(const IndxField* pField)
{
    return {
        pField->name ? pField->name : "(unnamed)",
        pField->keyType,
        pField->bUnique != 0,
        pField->roots.tRoot,
        pField->roots.tFirstLeaf,
        pField->roots.tLastLeaf,
        pField->levels};
}

// Follows the free chain and says of every block what it is.
void CheckBlocks(TreeReport& report, Blocks& blocks)
{
    report.blocks = blocks.count < 0 ? 0 : static_cast<uint32_t>(blocks.count);
    std::map<uint32_t, std::string> owner;
    for (const IndexReport& index : report.indexes) {
        for (const uint32_t id : index.nodes) {
            if (!owner.emplace(id, "index '" + index.field + "'").second)
                report.problems.push_back(
                    "block " + std::to_string(id) + " is in index '" + index.field + "' and in " +
                    owner[id]);
        }
    }
    for (uint32_t id = blocks.freeHead; id != NONE; id = U32At(blocks.Read(id), 0)) {
        if (id >= report.blocks) {
            report.problems.push_back("free chain leads to block " + std::to_string(id));
            break;
        }
        if (!owner.emplace(id, "the free chain").second) {
            report.problems.push_back(
                "block " + std::to_string(id) + " is on the free chain and in " + owner[id]);
            break;
        }
        report.freeChain.push_back(id);
    }
    for (uint32_t id = 0; id < report.blocks; ++id) {
        if (!owner.count(id))
            report.lost.push_back(id);
    }
}

TreeReport CheckTableIn(IndxTable* pTable, Blocks& blocks)
{
    TreeReport report;
    void* oField = nullptr;
    for (uint32_t n = 0; ListGetNthItem(&oField, pTable->oFields, n); ++n) {
        const auto* pField = static_cast<const IndxField*>(oField);
        if (pField->bIndexed)
            IndexCheck(report, blocks, ShapeOf(pField)).Run();
    }
    CheckBlocks(report, blocks);
    return report;
}

// Takes a rebuilt table apart: table and fields hold each other.
void ReleaseRebuilt(void* oTable)
{
    auto* pTable = static_cast<IndxTable*>(oTable);
    void* oField = nullptr;
    for (uint32_t n = 0; ListGetNthItem(&oField, pTable->oFields, n); ++n)
        ObjRelease(static_cast<IndxField*>(oField)->oTable);
    ObjReleaseInternal(&oTable);
}

testing::AssertionResult Sound(const TreeReport& report, size_t lost)
{
    if (!report.problems.empty())
        return testing::AssertionFailure() << report.text();
    if (report.lost.size() != lost)
        return testing::AssertionFailure()
               << report.lost.size() << " blocks are lost, expected " << lost;
    return testing::AssertionSuccess();
}

} // namespace

std::string TreeReport::text() const
{
    std::string result;
    for (const std::string& problem : problems)
        result += problem + "\n";
    return result;
}

TreeReport CheckTable(void* oTable)
{
    auto* pTable = static_cast<IndxTable*>(oTable);
    OpenBlocks blocks(pTable->oBlck);
    return CheckTableIn(pTable, blocks);
}

TreeReport CheckIndex(void* oField, void* oBlck)
{
    TreeReport report;
    OpenBlocks blocks(oBlck);
    IndexCheck(report, blocks, ShapeOf(static_cast<IndxField*>(oField))).Run();
    return report;
}

TreeReport CheckBlockFile(const std::string& path)
{
    FileBlocks blocks(path);
    const std::string userData = blocks.UserData();
    void* oTable = nullptr;
    TreeReport report;
    IndxEnsureTemplates();
    if (!ObjReconstructFromMemorySized(
            &oTable, userData.data(), static_cast<uint32_t>(userData.size())) ||
        ObjGetMagic(oTable) != INDX_TABLE_MAGIC) {
        ObjReleaseInternal(&oTable);
        report.problems.push_back("no table description in '" + path + "'");
        return report;
    }
    report = CheckTableIn(static_cast<IndxTable*>(oTable), blocks);
    ReleaseRebuilt(oTable);
    return report;
}

testing::AssertionResult SoundTable(void* oTable, size_t lost)
{
    return Sound(CheckTable(oTable), lost);
}

testing::AssertionResult SoundIndex(void* oField, void* oBlck)
{
    return Sound(CheckIndex(oField, oBlck), 0);
}

testing::AssertionResult SoundBlockFile(const std::string& path, size_t lost)
{
    return Sound(CheckBlockFile(path), lost);
}
