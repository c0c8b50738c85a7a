// index_fixture.cpp: the table object of index_fixture.h. Table and fields hold each other as in a
// real table; the ring is broken at Close.

#include "support/index_fixture.h"

#include <cstring>
#include <stdexcept>

#include "database/block.h"

namespace {

void Put32(std::string& bytes, size_t offset, uint32_t value)
{
    for (size_t i = 0; i < 4; ++i)
        bytes.at(offset + i) = static_cast<char>(value >> (8 * i));
}

char* PoolCopy(const std::string& text)
{
    return StrDuplicateIntoPool(text.c_str(), MemGetDefaultPoolId());
}

template <class T>
T* NewInstance(ObjTemplate* tmpl)
{
    void* object = nullptr;
    if (!ObjTemplateCreateInstanceFromPool(&object, tmpl, MemGetDefaultPoolId()))
        throw std::runtime_error("no memory for the fixture");
    return static_cast<T*>(object);
}

bool IsText(int32_t keyType)
{
    return keyType == INDX_KEY_TEXT || keyType == INDX_KEY_TEXT_NO_CASE;
}

void PutSlot(std::string& bytes, size_t slot, int32_t keyType, const Key& key)
{
    switch (keyType) {
    case INDX_KEY_INTEGER:
        Put32(bytes, slot, static_cast<uint32_t>(key.number));
        break;
    case INDX_KEY_INT64:
        Put32(bytes, slot, static_cast<uint32_t>(key.number));
        Put32(bytes, slot + 4, static_cast<uint32_t>(static_cast<uint64_t>(key.number) >> 32));
        break;
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
        Put32(bytes, slot, static_cast<uint32_t>(key.bytes.size()));
        Put32(bytes, slot + 4, static_cast<uint32_t>(bytes.size()));
        bytes += key.bytes;
        break;
    case INDX_KEY_UNIQUE_ID:
        bytes.replace(slot, 32, (key.bytes + std::string(32, '\0')).substr(0, 32));
        break;
    default:
        break;
    }
}

} // namespace

Key SizedKey(const std::string& start, size_t size, char fill)
{
    return BytesKey((start + std::string(size, fill)).substr(0, size - 1) + '\0');
}

TestRecord::TestRecord(
    const std::vector<IndexSpec>& specs, uint32_t id, const std::vector<Key>& keys)
    : bytes(IndexFixture::FIRST_SLOT + IndexFixture::SLOT_SIZE * specs.size(), '\0')
{
    Put32(bytes, IndexFixture::ID_OFFSET, id);
    for (size_t i = 0; i < keys.size(); ++i) {
        PutSlot(
            bytes, IndexFixture::FIRST_SLOT + IndexFixture::SLOT_SIZE * i, specs[i].keyType,
            keys[i]);
    }
    data_ = {static_cast<uint32_t>(bytes.size()), 0, bytes.data()};
}

IndexFixture::IndexFixture(const std::string& path, const std::vector<IndexSpec>& specs)
    : path_(path), specs_(specs), roots_(specs.size(), {INDX_NO_NODE, INDX_NO_NODE, INDX_NO_NODE}),
      levels_(specs.size(), 0)
{
    Open();
}

IndexFixture::~IndexFixture()
{
    Close();
}

void IndexFixture::Open()
{
    if (!IndxEnsureTemplates())
        throw std::runtime_error("no templates");
    pTable_ = NewInstance<IndxTable>(gIndxTemplates.table);
    pTable_->name = PoolCopy("Fixture");
    pTable_->idOffset = ID_OFFSET;
    pTable_->oFields = ListNewFromPool(INDX_FIELD_MAGIC, MemGetDefaultPoolId());
    if (!BlckFileOpen(&pTable_->oBlck, path_.c_str()))
        throw std::runtime_error("cannot open '" + path_ + "'");
    for (size_t i = 0; i < specs_.size(); ++i) {
        auto* pField = NewInstance<IndxField>(gIndxTemplates.field);
        std::string name("F");
        name += std::to_string(i);
        pField->name = PoolCopy(name);
        pField->recordOffset = static_cast<int32_t>(FIRST_SLOT + SLOT_SIZE * i);
        pField->bIndexed = TRUE;
        pField->bUnique = specs_[i].unique ? TRUE : FALSE;
        pField->bCaseSensitive = specs_[i].keyType == INDX_KEY_TEXT ? TRUE : FALSE;
        pField->maximumKey = specs_[i].maximumKey;
        pField->keyType = specs_[i].keyType;
        pField->roots = roots_[i];
        pField->levels = levels_[i];
        pField->oTable = static_cast<IndxTable*>(ObjIncRefCount(pTable_));
        pField->oCursors = ListNewFromPool(INDX_CURSOR_MAGIC, MemGetDefaultPoolId());
        fields_.push_back(pField);
        ListPushLastItem(pTable_->oFields, pField);
        cursors_.push_back(OpenCursor(i));
    }
    IndxCommitRoots(pTable_);
}

void IndexFixture::Close()
{
    if (!pTable_)
        return;
    for (size_t i = 0; i < fields_.size(); ++i) {
        roots_[i] = fields_[i]->roots;
        levels_[i] = fields_[i]->levels;
        void* oCursor = nullptr;
        while (ListGetNthItem(&oCursor, fields_[i]->oCursors, 0))
            CloseCursor(static_cast<IndxCursor*>(oCursor));
        ObjRelease(fields_[i]->oTable);
    }
    fields_.clear();
    cursors_.clear();
    ObjRelease(pTable_);
}

IndxCursor* IndexFixture::OpenCursor(size_t index)
{
    auto* pCursor = NewInstance<IndxCursor>(gIndxTemplates.cursor);
    IndxCursor* pBorrowed = pCursor;
    pCursor->status = INDX_AT_BEGINNING;
    pCursor->oField = static_cast<IndxField*>(ObjIncRefCount(fields_[index]));
    ListPushLastItem(fields_[index]->oCursors, pCursor);
    return pBorrowed;
}

void IndexFixture::CloseCursor(IndxCursor* pCursor)
{
    ListNode* pNode = nullptr;
    if (ListFindNode(&pNode, pCursor->oField->oCursors, pCursor))
        ListRemoveItem(pNode);
}

TestRecord IndexFixture::Record(uint32_t id, const Key& key, size_t index) const
{
    std::vector<Key> keys(index);
    keys.push_back(key);
    return {specs_, id, keys};
}

bool IndexFixture::Insert(uint32_t id, const Key& key, uint32_t offset, size_t index)
{
    const TestRecord record = Record(id, key, index);
    return IndxInsertKey(cursors_[index], offset, record.data()) == TRUE;
}

bool IndexFixture::Delete(uint32_t id, const Key& key, size_t index)
{
    const TestRecord record = Record(id, key, index);
    return IndxDeleteKey(cursors_[index], record.data()) == TRUE;
}

bool IndexFixture::InsertAll(uint32_t id, const std::vector<Key>& keys, uint32_t offset)
{
    const TestRecord record(specs_, id, keys);
    for (IndxCursor* pCursor : cursors_) {
        if (!IndxInsertKey(pCursor, offset, record.data()))
            return false;
    }
    return true;
}

bool IndexFixture::DeleteAll(uint32_t id, const std::vector<Key>& keys)
{
    const TestRecord record(specs_, id, keys);
    for (IndxCursor* pCursor : cursors_) {
        if (!IndxDeleteKey(pCursor, record.data()))
            return false;
    }
    return true;
}

bool IndexFixture::Add(uint32_t id, const Key& key, uint32_t offset, size_t index)
{
    if (Insert(id, key, offset, index))
        return Update();
    Backout();
    return false;
}

bool IndexFixture::Remove(uint32_t id, const Key& key, size_t index)
{
    if (Delete(id, key, index))
        return Update();
    Backout();
    return false;
}

int32_t IndexFixture::Find(uint32_t id, const Key& key, size_t index)
{
    return Find(cursors_[index], id, key);
}

int32_t IndexFixture::Find(IndxCursor* pCursor, uint32_t id, const Key& key)
{
    void* oKey = nullptr;
    const int32_t keyType = pCursor->oField->keyType;
    if (keyType == INDX_KEY_INTEGER) {
        oKey = ObjIntegerNew(static_cast<int32_t>(key.number));
    } else if (keyType == INDX_KEY_INT64) {
        oKey = ObjInt64New(key.number);
    } else if (IsText(keyType)) {
        oKey = ObjStringNew(key.bytes.c_str());
    } else if (keyType == INDX_KEY_UNIQUE_ID) {
        UniqueId value = {};
        memcpy(&value, (key.bytes + std::string(32, '\0')).data(), sizeof value);
        oKey = ObjUniqueNew(&value);
    }
    const int32_t code = IndxFindKey(pCursor, id, oKey);
    ObjReleaseInternal(&oKey);
    return code;
}

bool IndexFixture::FindExactly(uint32_t id, const Key& key, size_t index)
{
    if (fields_[index]->roots.tRoot == INDX_NO_NODE)
        return false;
    IndxKeyInfo* pKey = MakeKeyInfo(id, key, index);
    const bool found = IndxFind(cursors_[index], pKey, nullptr) == TRUE;
    ObjRelease(pKey);
    return found;
}

IndxKeyInfo* IndexFixture::MakeKeyInfo(uint32_t id, const Key& key, size_t index)
{
    const int32_t keyType = specs_[index].keyType;
    IndxKeyInfo* pKey = nullptr;
    if (!IndxNewKeyInfo(&pKey, keyType, id))
        throw std::runtime_error("no memory for a key info");
    if (keyType == INDX_KEY_INTEGER)
        ObjIntegerCreate(&pKey->oValue, static_cast<int32_t>(key.number));
    else if (keyType == INDX_KEY_INT64)
        ObjInt64Create(&pKey->oValue, key.number);
    else if (keyType & INDX_KEY_HEAP_BIT)
        ObjDataFieldCreate(
            &pKey->oValue, key.bytes.data(), static_cast<uint32_t>(key.bytes.size()));
    return pKey;
}

std::vector<uint32_t> IndexFixture::Walk(size_t index)
{
    std::vector<uint32_t> ids;
    IndxCursor* pCursor = OpenCursor(index);
    for (int32_t code = IndxFirstKey(pCursor); code == INDX_RESULT_FOUND;
         code = IndxNextKey(pCursor))
        ids.push_back(CursorId(pCursor));
    CloseCursor(pCursor);
    return ids;
}

uint32_t CursorId(const IndxCursor* pCursor)
{
    return pCursor->oKey ? pCursor->oKey->recordId : 0xFFFFFFFF;
}

uint32_t CursorOffset(const IndxCursor* pCursor)
{
    return pCursor->oKey ? pCursor->oKey->fileOffset : 0xFFFFFFFF;
}

Key CursorKey(const IndxCursor* pCursor)
{
    if (!pCursor->oKey)
        return {};
    void* oValue = pCursor->oKey->oValue;
    switch (pCursor->oField->keyType) {
    case INDX_KEY_INTEGER:
        return NumberKey(ObjGetInteger(oValue));
    case INDX_KEY_INT64:
        return NumberKey(ObjGetInt64(oValue));
    case INDX_KEY_RECORD_ID:
        return {};
    default:
        return BytesKey(std::string(
            static_cast<const char*>(ObjGetDataFieldData(oValue)), ObjGetDataFieldSize(oValue)));
    }
}
