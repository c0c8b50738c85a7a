// tree_model.cpp: the model of tree_model.h. Its comparisons are its own.

#include "database/tree_model.h"

#include <algorithm>
#include <cstring>

namespace {

unsigned char Folded(char c)
{
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
}

// Texts up to their first NUL or their end, by unsigned byte.
int CompareTexts(const std::string& left, const std::string& right, bool fold)
{
    for (size_t i = 0;; ++i) {
        const char l = i < left.size() ? left[i] : '\0';
        const char r = i < right.size() ? right[i] : '\0';
        if (l != r) {
            const unsigned char lf = fold ? Folded(l) : static_cast<unsigned char>(l);
            const unsigned char rf = fold ? Folded(r) : static_cast<unsigned char>(r);
            if (lf != rf)
                return lf < rf ? -1 : 1;
        }
        if (l == '\0')
            return 0;
    }
}

int CompareBytes(const std::string& left, const std::string& right)
{
    return memcmp(left.data(), right.data(), std::min(left.size(), right.size()));
}

std::string StoredValue(int32_t keyType, const Key& key)
{
    std::string bytes;
    const int width = keyType == INDX_KEY_INTEGER ? 4 : keyType == INDX_KEY_INT64 ? 8 : 0;
    for (int i = 0; i < width; ++i)
        bytes += static_cast<char>(static_cast<uint64_t>(key.number) >> (8 * i));
    return width || keyType == INDX_KEY_RECORD_ID ? bytes : key.bytes;
}

} // namespace

int ModelOrder::CompareValues(const Key& left, const Key& right) const
{
    switch (keyType) {
    case INDX_KEY_INTEGER:
    case INDX_KEY_INT64:
        return left.number < right.number ? -1 : left.number > right.number;
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
        return CompareTexts(left.bytes, right.bytes, keyType == INDX_KEY_TEXT_NO_CASE);
    case INDX_KEY_UNIQUE_ID:
        return CompareBytes(left.bytes, right.bytes);
    default:
        return 0;
    }
}

bool ModelOrder::operator()(const ModelKey& left, const ModelKey& right) const
{
    const int order = CompareValues(left.value, right.value);
    if (order != 0)
        return order < 0;
    return (keyType == INDX_KEY_RECORD_ID || !unique) && left.id < right.id;
}

bool TreeModel::Insert(const ModelKey& key, uint32_t offset)
{
    if (!keys_.emplace(key, offset).second)
        return false;
    undo_.push_back({key, std::nullopt});
    return true;
}

bool TreeModel::Holds(const ModelKey& key) const
{
    const auto at = keys_.find(key);
    return at != keys_.end() && at->first.id == key.id;
}

bool TreeModel::Delete(const ModelKey& key)
{
    const auto at = keys_.find(key);
    if (at == keys_.end() || at->first.id != key.id)
        return false;
    undo_.push_back({at->first, at->second});
    keys_.erase(at);
    return true;
}

void TreeModel::Backout()
{
    for (auto step = undo_.rbegin(); step != undo_.rend(); ++step) {
        keys_.erase(step->key);
        if (step->former)
            keys_.emplace(step->key, *step->former);
    }
    undo_.clear();
}

testing::AssertionResult TreeModel::Equals(const IndexReport& report) const
{
    if (report.entries.size() != keys_.size())
        return testing::AssertionFailure()
               << "the tree holds " << report.entries.size() << " keys, expected " << keys_.size();
    auto at = keys_.begin();
    for (size_t i = 0; i < report.entries.size(); ++i, ++at) {
        const TreeEntry& entry = report.entries[i];
        if (entry.id != at->first.id || entry.offset != at->second ||
            entry.value != StoredValue(order_.keyType, at->first.value))
            return testing::AssertionFailure() << "key " << i << " is not the expected one";
    }
    return testing::AssertionSuccess();
}

int32_t CursorModel::NoKey(int32_t where)
{
    status = where;
    code = INDX_RESULT_NO_KEY;
    return code;
}

void CursorModel::Land(TreeModel::Map::const_iterator at)
{
    status = INDX_ON_KEY;
    key = at->first;
    offset = at->second;
}

int32_t CursorModel::First()
{
    if (tree_.keys().empty())
        return NoKey(INDX_AT_END);
    Land(tree_.keys().begin());
    return code = INDX_RESULT_FOUND;
}

int32_t CursorModel::Last()
{
    if (tree_.keys().empty())
        return NoKey(INDX_AT_BEGINNING);
    Land(std::prev(tree_.keys().end()));
    return code = INDX_RESULT_FOUND;
}

bool CursorModel::Refind(int32_t statusIfEmpty)
{
    if (tree_.keys().empty()) {
        status = statusIfEmpty;
        return false;
    }
    const auto exactly = tree_.keys().find(key);
    if (exactly != tree_.keys().end()) {
        Land(exactly);
        code = INDX_RESULT_FOUND;
        return true;
    }
    const auto behind = tree_.keys().lower_bound(key);
    code = INDX_RESULT_NOT_FOUND;
    if (behind == tree_.keys().end())
        status = INDX_AT_END;
    else
        Land(behind);
    return false;
}

void CursorModel::StepForward()
{
    if (status == INDX_AT_BEGINNING) {
        First();
    } else if (status == INDX_AT_END) {
        NoKey(INDX_AT_END);
    } else {
        const auto next = tree_.keys().upper_bound(key);
        if (next == tree_.keys().end())
            NoKey(INDX_AT_END);
        else
            Land(next); // the code stays what the operation before left
    }
}

int32_t CursorModel::Next()
{
    if (status == INDX_UNTRUSTED && !Refind(INDX_AT_END) && status != INDX_AT_END)
        return code = INDX_RESULT_FOUND;
    StepForward();
    return code;
}

int32_t CursorModel::Previous()
{
    if (status == INDX_UNTRUSTED)
        Refind(INDX_AT_BEGINNING);
    if (status == INDX_AT_BEGINNING)
        return NoKey(INDX_AT_BEGINNING);
    if (status == INDX_AT_END)
        return Last();
    const auto at = tree_.keys().lower_bound(key);
    if (at == tree_.keys().begin())
        return NoKey(INDX_AT_BEGINNING);
    Land(std::prev(at));
    return code;
}

int32_t CursorModel::NextMatching()
{
    if (tree_.order().unique || !HasKey())
        return code = INDX_RESULT_NOT_FOUND;
    const Key value = key.value;
    if (status == INDX_UNTRUSTED && !Refind(INDX_AT_END))
        code = INDX_RESULT_FOUND;
    else
        StepForward();
    if (code == INDX_RESULT_FOUND &&
        (!HasKey() || tree_.order().CompareValues(key.value, value) != 0))
        code = INDX_RESULT_NOT_FOUND;
    return code;
}

int32_t CursorModel::Current()
{
    if (status == INDX_UNTRUSTED) {
        Refind(INDX_AT_END);
        if (code == INDX_RESULT_FOUND && !HasKey())
            code = INDX_RESULT_NOT_FOUND;
    }
    return code;
}

int32_t CursorModel::Find(uint32_t id, const Key& value)
{
    code = INDX_RESULT_NOT_FOUND;
    const auto exactly = tree_.keys().find({value, id});
    const auto at = tree_.keys().lower_bound({value, id});
    if (at == tree_.keys().end()) {
        status = INDX_AT_END;
        return code;
    }
    Land(at);
    const bool anyRecord = id == 0 && tree_.order().keyType != INDX_KEY_RECORD_ID &&
                           tree_.order().CompareValues(key.value, value) == 0;
    if (exactly != tree_.keys().end() || anyRecord)
        code = INDX_RESULT_FOUND;
    return code;
}

testing::AssertionResult CursorModel::Equals(const IndxCursor* pCursor) const
{
    if (pCursor->status != status || pCursor->result != code)
        return testing::AssertionFailure()
               << "status " << pCursor->status << " code " << pCursor->result
               << ", expected status " << status << " code " << code;
    if (!HasKey()) {
        if (pCursor->oKey)
            return testing::AssertionFailure() << "holds a key where there is none";
        return testing::AssertionSuccess();
    }
    if (!pCursor->oKey)
        return testing::AssertionFailure() << "holds no key";
    const Key value = CursorKey(pCursor);
    const bool number =
        tree_.order().keyType == INDX_KEY_INTEGER || tree_.order().keyType == INDX_KEY_INT64;
    if (CursorId(pCursor) != key.id || CursorOffset(pCursor) != offset ||
        (number ? value.number != key.value.number : value.bytes != key.value.bytes))
        return testing::AssertionFailure()
               << "is on another key: id " << CursorId(pCursor) << ", expected id " << key.id;
    return testing::AssertionSuccess();
}
