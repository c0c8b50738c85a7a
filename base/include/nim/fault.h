/* fault.h: faults and observation for tests.
 *
 * Compiled into the objects that tests link, in every preset, and left out of the shipped
 * libraries (NIM_NO_FAULTS). While nothing is armed a hook costs one predictable branch.
 *
 * A rule names a point, optionally a part of the file's path, and says which matching call fails
 * (nth, 1 = the next one), how many calls from there on (times, 0 = for ever), and how.
 */
#ifndef NIM_FAULT_H
#define NIM_FAULT_H

#include "nim/types.h"

NIM_BEGIN

/* Where a fault can strike. */
enum {
    FAULT_OPEN = 1,
    FAULT_CLOSE,
    FAULT_SEEK,
    FAULT_SEEKSTART,
    FAULT_SEEKEND,
    FAULT_SKIP,
    FAULT_GETOFFSET,
    FAULT_READ,
    FAULT_WRITE,
    FAULT_RESERVE,
    FAULT_MKDIR,
    FAULT_SCAN,
    FAULT_EXISTS,
    FAULT_ALLOC,
    FAULT_SERIALIZE,
    FAULT_RECONSTRUCT,
    FAULT_STNZ_LOAD,
    FAULT_STNZ_SAVE,
    FAULT_POINTS
};

/* How it strikes. */
enum {
    FAULT_FAIL = 0,       /* the call does nothing and fails                                    */
    FAULT_FAIL_AFTER = 1, /* the call moves `count` bytes, then fails and reports that count     */
    FAULT_FAIL_FULL = 2,  /* the call moves everything and reports it, and fails all the same    */
    FAULT_SHORT = 3       /* the call moves only `count` bytes, reports them, and succeeds        */
};

typedef struct FaultRule {
    uint32_t point;       /* FAULT_OPEN ...                                                     */
    const char* pathPart; /* substring of the path of the file or directory; null = any         */
    uint32_t nth;         /* 1 = the next matching call                                         */
    uint32_t times;       /* how many matching calls from there on; 0 = for ever                */
    uint32_t mode;        /* FAULT_FAIL ...                                                     */
    uint32_t count;       /* bytes, for FAULT_FAIL_AFTER and FAULT_SHORT                        */
} FaultRule;

/* Copies the rule (the path part included) and arms it. Returns its id, from 1; 0 when 16 rules
 * are armed already or the point is unknown. Not thread-safe: tests arm before they call. */
uint32_t FaultArm(const FaultRule* rule);
/* Disarms every rule. Call counts stay. */
void FaultDisarmAll(void);
/* How often the rule has struck. */
uint32_t FaultHits(uint32_t ruleId);
/* Matching calls of a point since FaultResetCalls. Counted only between FaultResetCalls and the
 * next FaultStopCalls; pathPart null = any. */
uint32_t FaultCalls(uint32_t point, const char* pathPart);
void FaultResetCalls(void);
void FaultStopCalls(void);

/* Operations as the observer of file calls sees them. */
enum { FILE_OP_OPEN = 1, FILE_OP_CLOSE, FILE_OP_READ, FILE_OP_WRITE, FILE_OP_RESERVE };
typedef void (*FileSysObserver)(
    void* context, uint32_t op, const char* path, int64_t offset, uint32_t size, uint32_t moved);
/* Calls `observer` after every open, close, read, write and reservation; null ends it. */
void FileSysSetObserver(FileSysObserver observer, void* context);

/* What is alive now. Kept by the memory, object and file services. */
uint64_t MemLiveBytes(void);
uint32_t MemLiveCount(void);
uint32_t ObjLiveCount(uint32_t magic /* 0 = all */);
uint32_t FileSysOpenCount(void);

NIM_END

/* ---- for the services themselves -------------------------------------------------------- */
#if defined(__cplusplus)
struct FaultStrike {
    uint32_t mode;  /* FAULT_FAIL ... */
    uint32_t count; /* bytes          */
};
#if defined(NIM_NO_FAULTS)
/* Shipped libraries: nothing can strike and nothing is tested. */
static inline bool FaultStrikes(uint32_t, const char*, FaultStrike*)
{
    return false;
}
static inline bool FaultFails(uint32_t, const char* = nullptr)
{
    return false;
}
static inline void FileSysObserve(uint32_t, const char*, int64_t, uint32_t, uint32_t) {}
#else
extern bool gFaultActive; /* a rule is armed, or calls are counted */
extern bool gFaultReads;  /* one for reads and the seeks ahead of them is, or calls are counted */
bool FaultMatch(uint32_t point, const char* path, FaultStrike* strike);
void FileSysObserveSlow(
    uint32_t op, const char* path, int64_t offset, uint32_t size, uint32_t moved);
extern FileSysObserver gFileSysObserver;

static inline bool FaultStrikes(uint32_t point, const char* path, FaultStrike* strike)
{
    return gFaultActive && FaultMatch(point, path, strike);
}
/* For points whose only mode is FAULT_FAIL. */
static inline bool FaultFails(uint32_t point, const char* path = nullptr)
{
    FaultStrike strike;
    return gFaultActive && FaultMatch(point, path, &strike);
}
static inline void
FileSysObserve(uint32_t op, const char* path, int64_t offset, uint32_t size, uint32_t moved)
{
    if (gFileSysObserver)
        FileSysObserveSlow(op, path, offset, size, moved);
}
#endif
#endif

#endif /* NIM_FAULT_H */
