// temporary_directory.h: a fresh directory for one test, removed with everything in it at its end.
#pragma once

#include <atomic>
#include <filesystem>
#include <random>
#include <string>

#include "support/utf8_path.h"

class TemporaryDirectory {
  public:
    TemporaryDirectory()
    {
        static std::atomic<unsigned> serial{0};
        std::random_device random;
        root_ = std::filesystem::temp_directory_path() /
                ("nimdb-test-" + std::to_string(random()) + "-" + std::to_string(serial++));
        std::filesystem::create_directories(root_);
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string path() const { return Utf8Text(root_); }
    std::string path(const std::string& name) const { return Utf8Text(root_ / Utf8Path(name)); }

  private:
    std::filesystem::path root_;
};
