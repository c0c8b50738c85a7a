// output.cpp: appends messages to a file, or writes them to the standard error. Failing is no
// result here: there is nobody left to tell.
#include "output.h"

#include <cstdlib>
#include <cstring>

#include "sys.h"

// Appends what it can. Result: how many bytes.
static size_t OutputAppend(const char* path, const char* bytes, size_t size)
{
    intptr_t file;
    if (!path || !*path || !SysFileOpen(&file, path, SYS_APPEND | SYS_CREATE))
        return 0;
    size_t done = 0;
    bool good = true;
    while (good && done < size) {
        size_t moved = 0;
        good = SysFileAppend(&moved, file, bytes + done, size - done) && moved > 0;
        done += moved;
    }
    SysFileClose(file);
    return done;
}

void OutputWrite(const char* path, const char* bytes, size_t size)
{
    const size_t done = OutputAppend(path, bytes, size);
    if (done < size)
        SysWriteStandardError(bytes + done, size - done);
}

Output::Output(const char* path) : path_(path) {}

Output::~Output()
{
    Flush();
    if (bytes_ != small_)
        free(bytes_);
}

// Room for `size` more bytes, from the heap and not from a pool: a message must not disturb what it
// reports on.
bool Output::Grow(size_t size)
{
    const size_t wanted = used_ + size;
    const size_t room = wanted > 2 * room_ ? wanted : 2 * room_;
    char* bytes = static_cast<char*>(malloc(room));
    if (!bytes)
        return false;
    memcpy(bytes, bytes_, used_);
    if (bytes_ != small_)
        free(bytes_);
    bytes_ = bytes;
    room_ = room;
    return true;
}

void Output::Put(const char* bytes, size_t size)
{
    if (size > room_ - used_ && !Grow(size)) {
        Flush();
        if (size > room_) {
            OutputWrite(path_, bytes, size);
            return;
        }
    }
    memcpy(bytes_ + used_, bytes, size);
    used_ += size;
}

void Output::Put(const char* text)
{
    Put(text, strlen(text));
}

void Output::Flush()
{
    if (used_ > 0)
        OutputWrite(path_, bytes_, used_);
    used_ = 0;
}
