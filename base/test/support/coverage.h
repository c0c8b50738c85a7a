// coverage.h: what a build for coverage has counted is written at the ordinary end of the process.
// A child process that leaves by another way, _exit for one, calls this before. A process that
// aborts does it by itself (main.cpp). In all other builds there is nothing to do.
#pragma once

void SaveCoverage();
