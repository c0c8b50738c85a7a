// directory_image.h: a directory kept in memory and brought back to what it was, with as few calls
// as that takes: sweeps do it thousands of times, and under an emulator each call is dear.
#pragma once

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/file_bytes.h"
#include "support/same_files.h"
#include "support/utf8_path.h"

class DirectoryImage {
  public:
    void Take(const std::string& directory)
    {
        root_ = Utf8Path(directory);
        files_ = FilesBelow(directory);
    }
    // Nothing below the directory may be open. What is surplus goes, what is missing comes, and
    // every file has its bytes.
    void Restore() const
    {
        std::filesystem::create_directories(root_);
        std::set<std::string> present;
        std::vector<std::filesystem::path> surplus;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
            const std::string name = NameBelow(root_, entry);
            if (files_.contains(name))
                present.insert(name);
            else
                surplus.push_back(entry.path());
        }
        for (const auto& path : surplus)
            std::filesystem::remove_all(path);
        for (const auto& [name, bytes] : files_) { // a directory comes before what is in it
            if (name.back() != '/')
                WriteFileBytes(Utf8Text(root_ / Utf8Path(name)), bytes);
            else if (!present.contains(name))
                std::filesystem::create_directory(root_ / Utf8Path(name));
        }
    }

  private:
    std::filesystem::path root_;
    std::map<std::string, std::string> files_; // as FilesBelow has them
};
