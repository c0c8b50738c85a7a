// progress.h: how far a long phase is: a bar that is redrawn on a terminal; anywhere else a line
// now and then, so that the log of a build machine shows life and stays readable.
#pragma once

#include <chrono>
#include <cstddef>

class Progress {
  public:
    Progress(const char* what, size_t total);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress(); // wipes the bar

    void Step();

  private:
    void Show();

    const char* what_;
    size_t total_;
    size_t done_ = 0;
    bool bTerminal_;
    std::chrono::steady_clock::time_point shown_ = std::chrono::steady_clock::now();
};
