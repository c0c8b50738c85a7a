// drives_win32.cpp: the drives as the Windows kernel knows them.
#include "database/dbconfig_internal.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

static_assert(DB_DRIVE_FIXED == DRIVE_FIXED);

namespace {

uint32_t LogicalDrives()
{
    return GetLogicalDrives();
}

uint32_t DriveType(const char* root)
{
    return GetDriveTypeA(root);
}

uint32_t LastError()
{
    return GetLastError();
}

} // namespace

const DbDrives kDbSystemDrives = {LogicalDrives, DriveType, LastError};
