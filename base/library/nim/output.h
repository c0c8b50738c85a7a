// output.h: where trace, log and crash lines go by default: a file, or the standard error.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t OUTPUT_PATH_SIZE = 1024;

// One message on its way out. It is gathered whole and then appended to the file in one call, so
// that the messages of several threads and processes stay whole and none is lost; no lock is
// needed. The file is opened for each message and closed behind it, so that it can be moved away
// between two; when it cannot be opened or written, what is left goes to the standard error. A
// message of up to 1 KiB takes no memory; where there is none for a longer one, it goes out in
// pieces. Not for two threads at a time.
class Output {
  public:
    explicit Output(const char* path); // null or "" = the standard error; must stay valid
    ~Output();                         // sends the message
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void Put(const char* bytes, size_t size);
    void Put(const char* text);

  private:
    bool Grow(size_t size);
    void Flush();

    const char* path_;
    char* bytes_ = small_;
    size_t used_ = 0;
    size_t room_ = sizeof small_;
    char small_[1024];
};

// Sends a whole message that lies in memory already.
void OutputWrite(const char* path, const char* bytes, size_t size);
