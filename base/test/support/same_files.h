// same_files.h: whether two databases on disk are the same, byte for byte. Two words of a control
// block and one of a node hold what was in memory when they were written, a file handle and two
// addresses, and are replaced when they are read: these alone may differ.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/file_bytes.h"
#include "support/utf8_path.h"

// An entry by its path below `root`, with "/" between the names; that of a directory ends in "/".
inline std::string
NameBelow(const std::filesystem::path& root, const std::filesystem::directory_entry& entry)
{
    std::string name = Utf8Text(entry.path().lexically_relative(root));
    std::replace(name.begin(), name.end(), '\\', '/');
    return entry.is_directory() ? name + "/" : name;
}

// Everything below a directory, by these names; directories have no bytes.
inline std::map<std::string, std::string> FilesBelow(const std::string& directory)
{
    std::map<std::string, std::string> files;
    const std::filesystem::path root = Utf8Path(directory);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string name = NameBelow(root, entry);
        files[name] = name.back() == '/' ? "" : ReadFileBytes(Utf8Text(entry.path()));
    }
    return files;
}

// Whether this byte of a block file means nothing.
inline bool IsMeaningless(size_t offset)
{
    const size_t inBlock = offset % 16384;
    return inBlock >= 24 && inBlock < (offset < 16384 ? 40 : 32);
}

// Where two files differ, for block files in what means something; their common length when
// nowhere.
inline size_t FirstDifference(const std::string& left, const std::string& right, bool blocks)
{
    const size_t common = std::min(left.size(), right.size());
    size_t i = 0;
    while (i < common && (left[i] == right[i] || (blocks && IsMeaningless(i))))
        ++i;
    return i;
}

inline bool AreSameBlocks(const std::string& left, const std::string& right)
{
    return left.size() == right.size() && FirstDifference(left, right, true) == left.size();
}

// What differs, one line a file; none: the same.
inline std::vector<std::string> Differences(const std::string& left, const std::string& right)
{
    std::vector<std::string> found;
    const auto leftFiles = FilesBelow(left);
    const auto rightFiles = FilesBelow(right);
    for (const auto& file : rightFiles) {
        if (!leftFiles.contains(file.first))
            found.push_back(file.first + " is only in the second");
    }
    for (const auto& [name, bytes] : leftFiles) {
        const auto other = rightFiles.find(name);
        if (other == rightFiles.end()) {
            found.push_back(name + " is only in the first");
            continue;
        }
        if (bytes.size() != other->second.size()) {
            found.push_back(
                name + ": " + std::to_string(bytes.size()) + " and " +
                std::to_string(other->second.size()) + " bytes");
            continue;
        }
        const bool blocks = name.find("Indexes/") != std::string::npos;
        const size_t at = FirstDifference(bytes, other->second, blocks);
        if (at < bytes.size())
            found.push_back(name + " differs at byte " + std::to_string(at));
    }
    return found;
}
