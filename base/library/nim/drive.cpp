// drive.cpp: the drives, for whoever stands above the base services.
#include "nim/drive.h"

#include "sys.h"

uint32_t DriveGetLetters(void)
{
    return SysDriveLetters();
}

uint32_t DriveGetType(const char* root)
{
    return root && *root ? SysDriveType(root) : 0;
}

uint32_t DriveGetLastError(void)
{
    return SysLastError();
}
