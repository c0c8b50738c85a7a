// output.h: where trace, log and crash lines go by default: a file, or the standard error.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t OUTPUT_PATH_SIZE = 1024;

// One message on its way out. The file is opened when the message begins and closed when it ends,
// so that it can be moved away between two messages; when it cannot be opened or written, the rest
// goes to the standard error. Bytes are gathered, so that a short message is one write. Not for two
// threads at a time.
class Output {
  public:
    explicit Output(const char* path); // null or "" = the standard error
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void Put(const char* bytes, size_t size);
    void Put(const char* text);

  private:
    void Flush();

    intptr_t file_;
    int64_t offset_ = 0;
    size_t used_ = 0;
    char buffer_[1024];
};
