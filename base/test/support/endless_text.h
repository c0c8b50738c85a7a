// endless_text.h: a text of gibibytes in 16 MiB of memory, which stand in its place again and
// again. Linux only.
#pragma once

#include <cstdint>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

class EndlessText {
  public:
    static constexpr uint64_t STEP = 16u << 20;

    explicit EndlessText(uint64_t steps) : size_(steps * STEP + PAGE)
    {
        const int file = memfd_create("text", MFD_CLOEXEC);
        if (file < 0 || ftruncate(file, STEP) != 0)
            return;
        // What is behind the last step stays empty: the NUL.
        void* p =
            mmap(nullptr, size_, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p != MAP_FAILED) {
            text_ = static_cast<char*>(p);
            for (uint64_t i = 0; i < steps; ++i)
                good_ = mmap(
                            text_ + i * STEP, STEP, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED,
                            file, 0) != MAP_FAILED &&
                        (i == 0 || good_);
            if (good_)
                memset(text_, 'a', STEP);
        }
        close(file);
    }
    ~EndlessText()
    {
        if (text_)
            munmap(text_, size_);
    }
    EndlessText(const EndlessText&) = delete;
    EndlessText& operator=(const EndlessText&) = delete;

    // Null where it is not to be had.
    const char* get() const { return good_ ? text_ : nullptr; }

  private:
    static constexpr uint64_t PAGE = 4096;
    uint64_t size_;
    char* text_ = nullptr;
    bool good_ = false;
};
