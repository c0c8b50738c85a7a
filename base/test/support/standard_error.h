// standard_error.h: keeps what is written to the standard error, below the C library, as long as it
// lives. Linux only.
#pragma once

#include <cstdio>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "support/file_bytes.h"
#include "support/temporary_directory.h"

class StandardError {
  public:
    StandardError() : path_(directory_.path("stderr"))
    {
        fflush(stderr);
        former_ = dup(STDERR_FILENO);
        const int file = open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND, 0600);
        dup2(file, STDERR_FILENO);
        close(file);
    }
    ~StandardError()
    {
        dup2(former_, STDERR_FILENO);
        close(former_);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

    std::string text() const { return ReadFileBytes(path_); }

  private:
    TemporaryDirectory directory_;
    std::string path_;
    int former_;
};
