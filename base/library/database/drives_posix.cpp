// drives_posix.cpp: a system without drive letters. It reports no drive and no error, so that the
// list of database paths holds the home directory alone.
#include "database/dbconfig_internal.h"

namespace {

uint32_t NoLogicalDrives()
{
    return 0;
}

uint32_t UnknownDriveType(const char*)
{
    return 0;
}

uint32_t NoError()
{
    return 0;
}

} // namespace

const DbDrives kDbSystemDrives = {NoLogicalDrives, UnknownDriveType, NoError};
