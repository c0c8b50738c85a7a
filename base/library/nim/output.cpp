// output.cpp: appends messages to a file, or writes them to the standard error. Failing is no
// result here: there is nobody left to tell.
#include "output.h"

#include <cstring>

#include "sys.h"

Output::Output(const char* path) : file_(SYS_NO_FILE)
{
    if (!path || !*path || !SysFileOpen(&file_, path, SYS_WRITE | SYS_CREATE)) {
        file_ = SYS_NO_FILE;
    } else if (!SysFileLength(&offset_, file_)) {
        SysFileClose(file_);
        file_ = SYS_NO_FILE;
    }
}

Output::~Output()
{
    Flush();
    if (file_ != SYS_NO_FILE)
        SysFileClose(file_);
}

void Output::Put(const char* bytes, size_t size)
{
    while (size != 0) {
        if (used_ == sizeof buffer_)
            Flush();
        size_t fits = sizeof buffer_ - used_;
        size_t count = size < fits ? size : fits;
        memcpy(buffer_ + used_, bytes, count);
        used_ += count;
        bytes += count;
        size -= count;
    }
}

void Output::Put(const char* text)
{
    Put(text, strlen(text));
}

void Output::Flush()
{
    size_t done = 0;
    while (file_ != SYS_NO_FILE && done < used_) {
        size_t moved = 0;
        bool written = SysFileWrite(&moved, file_, buffer_ + done, used_ - done, offset_);
        done += moved;
        offset_ += static_cast<int64_t>(moved);
        if (!written || moved == 0) {
            SysFileClose(file_);
            file_ = SYS_NO_FILE;
        }
    }
    if (done < used_)
        SysWriteStandardError(buffer_ + done, used_ - done);
    used_ = 0;
}
