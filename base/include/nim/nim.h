/* nim.h: all base services. The fault hooks (nim/fault.h) are for tests and are not included. */
#ifndef NIM_NIM_H
#define NIM_NIM_H

#include "nim/config.h"
#include "nim/dirscan.h"
#include "nim/drive.h"
#include "nim/filesys.h"
#include "nim/list.h"
#include "nim/log.h"
#include "nim/mem.h"
#include "nim/object.h"
#include "nim/objmap.h"
#include "nim/path.h"
#include "nim/proc.h"
#include "nim/stanza.h"
#include "nim/str.h"
#include "nim/trace.h"
#include "nim/types.h"
#include "nim/unique.h"

#endif /* NIM_NIM_H */
