// small_disk.h: a disk that gets full, in three kinds. A small file system of its own, mounted over
// a directory (root on Linux); a limit on the length of files, which refuses the same calls with
// another error (Linux); faults that refuse every reservation and every growth of a records file.
// A kind that cannot be had here is replaced by the next one.
#pragma once

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "nim/fault.h"

#if defined(__linux__)
#include <sys/mount.h>
#include <sys/resource.h>
#endif

class SmallDisk {
  public:
    enum Kind { MOUNTED, LIMITED, FAULTY };

    // `directory` must exist; what is in it is kept. No file in it may be open.
    SmallDisk(Kind kind, const std::string& directory, uint64_t bytes) : directory_(directory)
    {
        if (kind == MOUNTED && Mount(bytes))
            kind_ = MOUNTED;
        else if (kind != FAULTY && Limit(bytes / 2)) // the room is shared by two files
            kind_ = LIMITED;
        else
            Refuse(static_cast<uint32_t>(bytes / 16384));
    }
    ~SmallDisk()
    {
#if defined(__linux__)
        if (kind_ == MOUNTED)
            umount2(directory_.c_str(), MNT_DETACH);
#endif
        Lift();
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    Kind kind() const
    {
        return kind_;
    }
    std::string description() const
    {
        return kind_ == MOUNTED   ? "a file system of its own"
               : kind_ == LIMITED ? "a limit on the length of files"
                                  : "faults";
    }
    // Takes what is left of the room away, but for `left` bytes, a number of whole pages.
    void Fill(uint64_t left = 0)
    {
        if (kind_ == MOUNTED) {
            std::ofstream filler(directory_ + "/filler", std::ios::binary);
            const std::string page(4096, 'f');
            uint64_t size = 0;
            while (filler.write(page.data(), 4096) && filler.flush())
                size += 4096;
            filler.close();
            std::filesystem::resize_file(directory_ + "/filler", size - left);
        } else if (kind_ == LIMITED) {
            Limit(left);
        } else {
            FaultDisarmAll();
            Refuse(0);
        }
    }
    void Enlarge()
    {
        std::filesystem::remove(directory_ + "/filler");
#if defined(__linux__)
        if (kind_ == MOUNTED)
            mount("tmpfs", directory_.c_str(), "tmpfs", MS_REMOUNT, "size=64m");
#endif
        Lift();
    }

  private:
    bool Mount([[maybe_unused]] uint64_t bytes)
    {
#if defined(__linux__)
        namespace fs = std::filesystem;
        const std::string saved = directory_ + ".saved";
        fs::copy(directory_, saved, fs::copy_options::recursive);
        const std::string options = "size=" + std::to_string(bytes);
        const bool mounted = mount("tmpfs", directory_.c_str(), "tmpfs", 0, options.c_str()) == 0;
        if (mounted)
            fs::copy(saved, directory_, fs::copy_options::recursive);
        fs::remove_all(saved);
        return mounted;
#else
        return false;
#endif
    }
    bool Limit([[maybe_unused]] uint64_t bytes)
    {
#if defined(__linux__)
        if (!limited_)
            getrlimit(RLIMIT_FSIZE, &former_);
        rlimit limit = former_;
        limit.rlim_cur = bytes;
        limited_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
        return limited_;
#else
        return false;
#endif
    }
    // From the n-th on, every fresh block and every record is refused, the latter half-way.
    void Refuse(uint32_t n)
    {
        const FaultRule blocks = {FAULT_RESERVE, "Indexes", n + 1, 0, FAULT_FAIL, 0};
        const FaultRule records = {FAULT_WRITE, "Records", 4 * n + 1, 0, FAULT_FAIL_AFTER, 33};
        FaultArm(&blocks);
        FaultArm(&records);
    }
    void Lift()
    {
#if defined(__linux__)
        if (limited_)
            setrlimit(RLIMIT_FSIZE, &former_);
        limited_ = false;
#endif
        if (kind_ == FAULTY)
            FaultDisarmAll();
    }

    std::string directory_;
    Kind kind_ = FAULTY;
#if defined(__linux__)
    bool limited_ = false;
    rlimit former_ = {};
#endif
};
