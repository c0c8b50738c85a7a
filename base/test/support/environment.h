// environment.h: environment variables, and a directory that a test shares with the child process
// of its death test, which runs the test's body again from the beginning.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "support/temporary_directory.h"

inline void SetEnvironment(const std::string& name, const std::string& value)
{
#ifdef _WIN32
    _putenv_s(name.c_str(), value.c_str());
#else
    setenv(name.c_str(), value.c_str(), 1);
#endif
}

inline void UnsetEnvironment(const std::string& name)
{
#ifdef _WIN32
    _putenv_s(name.c_str(), "");
#else
    unsetenv(name.c_str());
#endif
}

// The parent makes the directory and names it in a variable, which the child finds set.
class SharedDirectory {
  public:
    SharedDirectory()
    {
        if (const char* inherited = std::getenv(VARIABLE)) {
            path_ = inherited;
        } else {
            own_ = std::make_unique<TemporaryDirectory>();
            path_ = own_->path();
            SetEnvironment(VARIABLE, path_);
        }
    }
    ~SharedDirectory()
    {
        if (own_)
            UnsetEnvironment(VARIABLE);
    }
    SharedDirectory(const SharedDirectory&) = delete;
    SharedDirectory& operator=(const SharedDirectory&) = delete;

    std::string path(const std::string& name) const { return path_ + "/" + name; }

  private:
    static constexpr const char* VARIABLE = "NIM_TEST_SHARED_DIRECTORY";
    std::unique_ptr<TemporaryDirectory> own_;
    std::string path_;
};
