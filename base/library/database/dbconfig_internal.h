// dbconfig_internal.h: where the drives of the machine come from: the base services (nim/drive.h),
// and in a test drives of its own, which it points gpDbDrives at.
#pragma once

#include <cstdint>

struct DbDrives {
    // Bit mask of the drives there are, bit 0 for "A"; 0 on failure, with getLastError.
    uint32_t (*getLogicalDrives)();
    // Type of the drive with this root ("C:\").
    uint32_t (*getDriveType)(const char* root);
    // The system's error value of the failed call before.
    uint32_t (*getLastError)();
};

constexpr uint32_t DB_DRIVE_UNKNOWN = 0; // the system cannot tell
constexpr uint32_t DB_DRIVE_FIXED = 3;   // a local fixed drive

extern const DbDrives kDbSystemDrives;
extern const DbDrives* gpDbDrives; // kDbSystemDrives, until a test puts others in their place
