// win32_calls.h: what the tests of this folder ask the system for directly, so that they see files
// by their wide names and not through the library that is tested.
#pragma once

#define WIN32_LEAN_AND_MEAN
#if !defined(NOMINMAX)
#define NOMINMAX // the standard library defines it, too
#endif
#if !defined(_WIN32_WINNT)
#define _WIN32_WINNT 0x0A00
#endif
#include <windows.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/utf8_path.h"

// Whether the drives of cmake/wine_prefix.sh are mapped; only its prefix has them.
inline bool TestDrivesAreMapped()
{
    return std::getenv("NIM_TEST_DRIVES") != nullptr;
}

// The long form of an absolute path with back slashes, for which no limit of 260 characters counts.
inline std::wstring LongForm(const std::string& path)
{
    return L"\\\\?\\" + Utf8Path(path).wstring();
}

// Bytes of a file by its long form; "(absent)" when it cannot be opened.
inline std::string BytesByLongForm(const std::string& path)
{
    const HANDLE file = CreateFileW(
        LongForm(path).c_str(), GENERIC_READ,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return "(absent)";
    std::string bytes(GetFileSize(file, nullptr), '\0');
    DWORD count = 0;
    ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr);
    CloseHandle(file);
    bytes.resize(count);
    return bytes;
}

// Removes a directory with everything in it. The standard library cannot do so where paths grow
// long: it asks for names cut off at 260 characters, and never comes to an end.
inline void RemoveByLongForm(const std::wstring& directory)
{
    WIN32_FIND_DATAW entry;
    const HANDLE scan = FindFirstFileW((directory + L"\\*").c_str(), &entry);
    if (scan == INVALID_HANDLE_VALUE)
        return;
    do {
        const std::wstring name = entry.cFileName;
        const std::wstring path = directory + L"\\" + name;
        if (name == L"." || name == L"..")
            continue;
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            RemoveByLongForm(path);
        else
            DeleteFileW(path.c_str());
    } while (FindNextFileW(scan, &entry));
    FindClose(scan);
    RemoveDirectoryW(directory.c_str());
}

// A file as another program may hold it: opened for reading, and nobody else may do more than
// `share` tells.
class HeldFile {
  public:
    explicit HeldFile(const std::string& path, DWORD share = 0)
        : file_(CreateFileW(
              LongForm(path).c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr))
    {
    }
    ~HeldFile() { Release(); }
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

    bool held() const { return file_ != INVALID_HANDLE_VALUE; }
    void Release()
    {
        if (held())
            CloseHandle(file_);
        file_ = INVALID_HANDLE_VALUE;
    }

  private:
    HANDLE file_;
};

// The current directory, given back at the end, and with it that of each drive. The latter are a
// custom of programs and not of the system: they stand in the environment as "=H:", where the
// runtime of a program puts them when it changes its directory, or should.
class CurrentDirectory {
  public:
    CurrentDirectory() : former_(std::filesystem::current_path()) {}
    ~CurrentDirectory()
    {
        for (const std::wstring& variable : variables_)
            SetEnvironmentVariableW(variable.c_str(), nullptr);
        std::filesystem::current_path(former_);
    }
    CurrentDirectory(const CurrentDirectory&) = delete;
    CurrentDirectory& operator=(const CurrentDirectory&) = delete;

    // Also sets what a path with this drive and without a root is relative to.
    void Set(const std::string& path)
    {
        const std::filesystem::path directory = Utf8Path(path);
        std::filesystem::current_path(directory);
        variables_.push_back(L"=" + directory.root_name().wstring());
        SetEnvironmentVariableW(variables_.back().c_str(), directory.c_str());
    }

  private:
    std::filesystem::path former_;
    std::vector<std::wstring> variables_;
};
