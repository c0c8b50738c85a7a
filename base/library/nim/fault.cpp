// fault.cpp: the faults and the observation that tests ask for. Not part of the shipped libraries.
//
// A rule counts the calls that match it, struck or not. Calls are counted for each point, and for
// each point and path as long as the table of paths has room. The state is locked, since several
// threads may allocate while calls are counted.
#include "nim/fault.h"

#include <cstring>

#include "spinlock.h"

bool gFaultActive = false;
bool gFaultReads = false;
FileSysObserver gFileSysObserver = nullptr;

namespace {

constexpr uint32_t FAULT_RULES = 16;
constexpr uint32_t FAULT_PATHS = 512;
constexpr uint32_t FAULT_PATH_BYTES = 512; // the last bytes of a longer path are kept

struct FaultArmed {
    FaultRule rule; // its path part is the copy below, or null
    char pathPart[FAULT_PATH_BYTES];
    uint32_t seen; // matching calls
    uint32_t hits; // of them struck
};

struct FaultCounter {
    uint32_t point;
    uint32_t calls;
    char path[FAULT_PATH_BYTES];
};

SpinLock gFaultLock;
FaultArmed gFaultRules[FAULT_RULES];
uint32_t gFaultRuleCount = 0;

bool gFaultCounting = false;
uint32_t gFaultTotals[FAULT_POINTS];
FaultCounter gFaultCounters[FAULT_PATHS];
uint32_t gFaultCounterCount = 0;

void* gFileSysObserverContext = nullptr;

// Whether a point lies on the way to bytes of a file.
bool IsOfReads(uint32_t point)
{
    return point == FAULT_READ || point == FAULT_SEEK;
}

} // namespace

uint32_t FaultArm(const FaultRule* rule)
{
    if (!rule || rule->point == 0 || rule->point >= FAULT_POINTS || rule->mode > FAULT_SHORT)
        return 0;
    size_t length = rule->pathPart ? strlen(rule->pathPart) : 0;
    if (length >= FAULT_PATH_BYTES)
        return 0;
    SpinLockGuard guard(gFaultLock);
    if (gFaultRuleCount == FAULT_RULES)
        return 0;
    FaultArmed& armed = gFaultRules[gFaultRuleCount];
    memset(static_cast<void*>(&armed), 0, sizeof armed);
    armed.rule = *rule;
    if (armed.rule.nth == 0)
        armed.rule.nth = 1;
    if (rule->pathPart) {
        memcpy(armed.pathPart, rule->pathPart, length + 1);
        armed.rule.pathPart = armed.pathPart;
    }
    gFaultActive = true;
    gFaultReads = gFaultReads || IsOfReads(rule->point);
    return ++gFaultRuleCount;
}

void FaultDisarmAll(void)
{
    SpinLockGuard guard(gFaultLock);
    gFaultRuleCount = 0;
    gFaultActive = gFaultReads = gFaultCounting;
}

uint32_t FaultHits(uint32_t ruleId)
{
    SpinLockGuard guard(gFaultLock);
    // A rule that was disarmed keeps its hits until its id is given again.
    return ruleId >= 1 && ruleId <= FAULT_RULES ? gFaultRules[ruleId - 1].hits : 0;
}

uint32_t FaultCalls(uint32_t point, const char* pathPart)
{
    if (point == 0 || point >= FAULT_POINTS)
        return 0;
    SpinLockGuard guard(gFaultLock);
    if (!pathPart)
        return gFaultTotals[point];
    uint32_t calls = 0;
    for (uint32_t i = 0; i < gFaultCounterCount; ++i)
        if (gFaultCounters[i].point == point && strstr(gFaultCounters[i].path, pathPart))
            calls += gFaultCounters[i].calls;
    return calls;
}

void FaultResetCalls(void)
{
    SpinLockGuard guard(gFaultLock);
    memset(gFaultTotals, 0, sizeof gFaultTotals);
    gFaultCounterCount = 0;
    gFaultCounting = true;
    gFaultActive = gFaultReads = true;
}

void FaultStopCalls(void)
{
    SpinLockGuard guard(gFaultLock);
    gFaultCounting = false;
    gFaultActive = gFaultRuleCount != 0;
    gFaultReads = false;
    for (uint32_t i = 0; i < gFaultRuleCount; ++i)
        gFaultReads |= IsOfReads(gFaultRules[i].rule.point);
}

static void FaultCount(uint32_t point, const char* path)
{
    ++gFaultTotals[point];
    if (!path)
        return;
    size_t length = strlen(path);
    if (length >= FAULT_PATH_BYTES) {
        path += length - (FAULT_PATH_BYTES - 1);
        length = FAULT_PATH_BYTES - 1;
    }
    for (uint32_t i = 0; i < gFaultCounterCount; ++i) {
        if (gFaultCounters[i].point == point && strcmp(gFaultCounters[i].path, path) == 0) {
            ++gFaultCounters[i].calls;
            return;
        }
    }
    if (gFaultCounterCount < FAULT_PATHS) {
        FaultCounter& counter = gFaultCounters[gFaultCounterCount++];
        counter.point = point;
        counter.calls = 1;
        memcpy(counter.path, path, length + 1);
    }
}

bool FaultMatch(uint32_t point, const char* path, FaultStrike* strike)
{
    SpinLockGuard guard(gFaultLock);
    if (gFaultCounting)
        FaultCount(point, path);
    bool struck = false;
    for (uint32_t i = 0; i < gFaultRuleCount; ++i) {
        FaultArmed& armed = gFaultRules[i];
        const FaultRule& rule = armed.rule;
        if (rule.point != point || (rule.pathPart && (!path || !strstr(path, rule.pathPart))))
            continue;
        ++armed.seen;
        bool due =
            armed.seen >= rule.nth && (rule.times == 0 || armed.seen - rule.nth < rule.times);
        // Of several rules that are due, the one armed first strikes.
        if (!due || struck)
            continue;
        ++armed.hits;
        strike->mode = rule.mode;
        strike->count = rule.count;
        struck = true;
    }
    return struck;
}

void FileSysSetObserver(FileSysObserver observer, void* context)
{
    gFileSysObserverContext = context;
    gFileSysObserver = observer;
}

void FileSysObserveSlow(
    uint32_t op, const char* path, int64_t offset, uint32_t size, uint32_t moved)
{
    gFileSysObserver(gFileSysObserverContext, op, path, offset, size, moved);
}
