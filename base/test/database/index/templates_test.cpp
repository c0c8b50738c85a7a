// templates_test.cpp: the templates of the table layer, which are made by whatever comes first in a
// process and stay: so each test has a process of its own.
#include <gtest/gtest.h>

#include <cstdlib>

#include "database/dbrecord_internal.h"
#include "database/index.h"
#include "database/indexinternal.h"
#include "nim/nim.h"
#include "support/armed_fault.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"

namespace {

// Runs the first call, which answers whether it succeeded, with the n-th allocation failing, for
// every n. Ends the process: 0 when each failure was one, there were as many as expected, and the
// first run without one succeeded. What a run has made before its failure is there for the next, so
// that few runs meet them all.
template <class FirstCall>
void SweepFirst(FirstCall call, uint32_t leastFailures, bool bMayDoWithout = false)
{
    TraceRecorder quiet(-1);
    for (uint32_t nth = 1; nth < 100; ++nth) {
        bool bGood;
        bool bStruck;
        {
            const ArmedFault fault(FAULT_ALLOC, nth);
            bGood = call();
            bStruck = fault.hits() != 0;
        }
        const bool bExpected = bStruck ? !bGood || (bMayDoWithout && nth > 1) : bGood;
        if (!bExpected || ObjLiveCount(0) != 0 || MemLiveCount() != 0)
            std::exit(2);
        if (!bStruck)
            std::exit(nth > leastFailures ? 0 : 3);
    }
    std::exit(4);
}

bool OpenDatabase()
{
    static const TemporaryDirectory sDirectory;
    PathSetHome(sDirectory.path().c_str());
    void* oDatabase = nullptr;
    const bool bOpened = IndxOpenDatabase(&oDatabase, "Data", nullptr, nullptr) != 0;
    if (bOpened)
        IndxCloseDatabase(&oDatabase);
    return bOpened && !oDatabase;
}

bool MakeKey()
{
    IndxKeyInfo stale = {};
    IndxKeyInfo* pKey = &stale;
    const bool bMade = IndxNewKeyInfo(&pKey, INDX_KEY_INTEGER, 5) != 0;
    if (bMade != (pKey != nullptr) || (bMade && pKey->recordId != 5))
        std::exit(5);
    ObjRelease(pKey);
    return bMade;
}

bool MakeBlob()
{
    DbBlob* pBlob = DbNewBlob(0xca111111, "i;");
    const bool bMade = pBlob != nullptr;
    ObjRelease(pBlob);
    return bMade;
}

} // namespace

TEST(TemplatesDeathTest, WithoutMemoryForThemTheFirstDatabaseFailsAndTheNextIsOpened)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // A directory that cannot be scanned is no failure.
    EXPECT_EXIT(SweepFirst(OpenDatabase, 3, true), testing::ExitedWithCode(0), "");
}

TEST(TemplatesDeathTest, WithoutMemoryForThemThereIsNoKey)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(SweepFirst(MakeKey, 3), testing::ExitedWithCode(0), "");
}

TEST(TemplatesDeathTest, WithoutMemoryForThemThereIsNoRecord)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(SweepFirst(MakeBlob, 2), testing::ExitedWithCode(0), "");
}
