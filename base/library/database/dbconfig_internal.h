// dbconfig_internal.h: the drives of the machine, the only thing outside the base services that the
// database library asks the operating system for. drives_win32.cpp and drives_posix.cpp define
// kDbSystemDrives, the one or the other is built; tests point gpDbDrives at drives of their own.
#pragma once

#include <cstdint>

struct DbDrives {
    // Bit mask of the drives there are, bit 0 for "A"; 0 on failure, with getLastError.
    uint32_t (*getLogicalDrives)();
    // Type of the drive with this root ("C:\"); DB_DRIVE_FIXED is a local fixed drive.
    uint32_t (*getDriveType)(const char* root);
    // The system's error value of the failed call before.
    uint32_t (*getLastError)();
};

constexpr uint32_t DB_DRIVE_FIXED = 3;

extern const DbDrives kDbSystemDrives;
extern const DbDrives* gpDbDrives; // kDbSystemDrives, until a test puts others in their place
