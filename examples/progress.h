// progress.h: how far a long phase is: a bar that is redrawn on a terminal, a line for each quarter
// anywhere else, so that the log of a build machine stays readable.
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
    void Draw();

    const char* what_;
    size_t total_;
    size_t done_ = 0;
    size_t next_; // count at which Step has to look at the clock or write a line
    bool bTerminal_;
    std::chrono::steady_clock::time_point drawn_;
};
