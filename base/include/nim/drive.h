/* drive.h: the drives of the machine, where the system gives them letters.
 */
#ifndef NIM_DRIVE_H
#define NIM_DRIVE_H

#include "nim/types.h"

NIM_BEGIN

/* The drives there are: bit 0 for "A", bit 25 for "Z". 0 when the system does not tell, with its
 * reason in DriveGetLastError; a system without drive letters gives 0 and no reason. */
NIM_API uint32_t DriveGetLetters(void);

/* The type of a drive, in the numbers of Windows: 1 nothing there, 2 removable, 3 a fixed drive of
 * this machine, 4 network, 5 optical, 6 RAM disk; 0 when the system cannot tell.
 *   root  in: the drive's root, as "C:\"; null or empty gives 0. */
NIM_API uint32_t DriveGetType(const char* root);

/* The system's own number for why the last of these calls by this thread has failed. */
NIM_API uint32_t DriveGetLastError(void);

NIM_END

#endif /* NIM_DRIVE_H */
