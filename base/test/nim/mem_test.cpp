// mem_test.cpp: the pools. In sanitizer builds memory passes through to the heap; what belongs to
// the waiting pieces is skipped there, and the sanitizer watches everything else.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "mempool.h"
#include "nim/fault.h"
#include "nim/mem.h"
#include "spinlock.h"
#include "support/seed.h"
#include "support/trace_recorder.h"

namespace {

const std::string TAG = "NIMMEM        ";

// Around every seam of the size classes, and some that are common.
const std::vector<uint32_t> SIZES = {0,     1,     15,    16,    17,    31,    32,    33,
                                     64,    100,   1008,  1023,  1024,  1025,  1136,  1151,
                                     1152,  1153,  1407,  1408,  1409,  2047,  2176,  2177,
                                     4096,  8192,  16383, 16384, 16440, 16512, 16513, 20608,
                                     32896, 65535, 65536, 65663, 65664, 65665, 65666, 1000000};

bool Pooled()
{
    // What is freed waits, unless everything passes through.
    MemTrim();
    void* p = MemAllocateFromPool(64, MemGetDefaultPoolId());
    MemFreeInternal(&p);
    return MemWaitingBytes() != 0;
}

// Makes and loses a pointer that the compiler does not follow any further.
void* Hidden(void* p)
{
    static void* volatile hidden;
    hidden = p;
    return hidden;
}

} // namespace

TEST(Mem, ToolsThatWatchTheHeapSeeEveryPiece)
{
    // Valgrind loads its libraries ahead of all others; so does the run of this program that stands
    // in for it, whose library does nothing.
    const char* preload = std::getenv("LD_PRELOAD");
    bool watched = preload && std::strstr(preload, "vgpreload");
#ifdef NIM_SANITIZE
    watched = true;
#endif
    EXPECT_NE(Pooled(), watched);
}

TEST(Mem, DefaultPoolIsOne)
{
    EXPECT_EQ(MemGetDefaultPoolId(), 1u);
    EXPECT_EQ(MemGetDefaultPoolId(), MemGetDefaultPoolId());
}

TEST(Mem, MemoryIsZeroedWhateverWasInItBefore)
{
    for (uint32_t size : SIZES) {
        for (int round = 0; round < 3; ++round) {
            void* p = MemAllocateFromPool(size, MemGetDefaultPoolId());
            ASSERT_NE(p, nullptr) << size;
            const auto* bytes = static_cast<const uint8_t*>(p);
            for (uint32_t i = 0; i < size; ++i)
                ASSERT_EQ(bytes[i], 0) << "size " << size << " byte " << i;
            memset(p, 0xA5, size);
            MemFreeInternal(&p);
        }
    }
}

TEST(Mem, EveryPieceIsAlignedTo16Bytes)
{
    for (uint32_t size : SIZES) {
        void* cleared = MemAllocateFromPool(size, MemGetDefaultPoolId());
        void* uncleared = MemAllocateUncleared(size, MemGetDefaultPoolId());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(cleared) % 16, 0u) << size;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(uncleared) % 16, 0u) << size;
        MemFreeInternal(&cleared);
        MemFreeInternal(&uncleared);
    }
}

TEST(Mem, SizeZeroGivesPiecesOfTheirOwn)
{
    void* a = MemAllocateFromPool(0, MemGetDefaultPoolId());
    void* b = MemAllocateUncleared(0, MemGetDefaultPoolId());
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_NE(a, b);
    MemFreeInternal(&a);
    MemFreeInternal(&b);
}

TEST(Mem, LivePiecesNeverOverlap)
{
    std::vector<std::pair<uint8_t*, uint32_t>> pieces;
    for (int round = 0; round < 3; ++round) {
        for (uint32_t size : SIZES) {
            auto* p = static_cast<uint8_t*>(MemAllocateUncleared(size, MemGetDefaultPoolId()));
            ASSERT_NE(p, nullptr);
            memset(p, static_cast<int>(pieces.size()), size);
            pieces.emplace_back(p, size);
        }
    }
    for (size_t n = 0; n < pieces.size(); ++n)
        for (uint32_t i = 0; i < pieces[n].second; ++i)
            ASSERT_EQ(pieces[n].first[i], static_cast<uint8_t>(n));
    for (auto& piece : pieces)
        MemFree(piece.first);
}

TEST(Mem, UnknownPoolGivesNull)
{
    for (uint32_t pool : {0u, 2u, 0xFFFFFFFFu}) {
        EXPECT_EQ(MemAllocateFromPool(8, pool), nullptr);
        EXPECT_EQ(MemAllocateUncleared(8, pool), nullptr);
    }
}

TEST(Mem, FreeNullsTheVariableAndTakesNull)
{
    void* p = MemAllocateFromPool(8, MemGetDefaultPoolId());
    MemFreeInternal(&p);
    EXPECT_EQ(p, nullptr);
    CrashRecorder crashes;
    MemFreeInternal(&p);
    MemFreeInternal(nullptr);
    EXPECT_EQ(crashes.count(), 0u);
}

TEST(Mem, CountsWhatIsAlive)
{
    uint64_t bytes = MemLiveBytes();
    uint32_t count = MemLiveCount();
    for (uint32_t size : SIZES) {
        void* a = MemAllocateFromPool(size, MemGetDefaultPoolId());
        void* b = MemAllocateUncleared(size, MemGetDefaultPoolId());
        EXPECT_EQ(MemLiveBytes(), bytes + 2 * uint64_t{size});
        EXPECT_EQ(MemLiveCount(), count + 2);
        MemFreeInternal(&a);
        EXPECT_EQ(MemLiveBytes(), bytes + size);
        EXPECT_EQ(MemLiveCount(), count + 1);
        MemFreeInternal(&b);
    }
    EXPECT_EQ(MemAllocateFromPool(8, 0), nullptr);
    EXPECT_EQ(MemLiveBytes(), bytes);
    EXPECT_EQ(MemLiveCount(), count);
}

TEST(Mem, AnAllocationThatIsToFailFails)
{
    uint32_t count = MemLiveCount();
    FaultRule rule = {FAULT_ALLOC, nullptr, 2, 2, FAULT_FAIL, 0};
    uint32_t id = FaultArm(&rule);
    std::array<void*, 4> p;
    p[0] = MemAllocateFromPool(8, MemGetDefaultPoolId());
    p[1] = MemAllocateFromPool(8, MemGetDefaultPoolId());
    p[2] = MemAllocateUncleared(8, MemGetDefaultPoolId());
    p[3] = MemAllocateUncleared(8, MemGetDefaultPoolId());
    FaultDisarmAll();
    EXPECT_EQ(FaultHits(id), 2u);
    EXPECT_NE(p[0], nullptr);
    EXPECT_EQ(p[1], nullptr);
    EXPECT_EQ(p[2], nullptr);
    EXPECT_NE(p[3], nullptr);
    for (void*& each : p)
        MemFreeInternal(&each);
    EXPECT_EQ(MemLiveCount(), count);
}

TEST(Mem, CopyAllowsOverlapAndNothing)
{
    char text[] = "0123456789";
    MemCopy(text + 2, text, 6);
    EXPECT_STREQ(text, "0101234589");
    MemCopy(text, text + 2, 8);
    EXPECT_STREQ(text, "0123458989");
    MemCopy(nullptr, nullptr, 0);
    MemCopy(text, nullptr, 0);
    MemCopy(nullptr, text, 0);
    MemCopy(text, text + 5, 0);
    EXPECT_STREQ(text, "0123458989");
}

TEST(Mem, AFreedPieceServesTheNextAllocationOfItsSize)
{
    if (!Pooled())
        GTEST_SKIP() << "memory passes through to the heap";
    for (uint32_t size : {24u, 1000u, 16440u}) {
        void* p = MemAllocateUncleared(size, MemGetDefaultPoolId());
        void* first = p;
        MemFreeInternal(&p);
        // Of its size class, of which the neighbour sizes are.
        p = MemAllocateUncleared(size + 1, MemGetDefaultPoolId());
        EXPECT_EQ(p, first);
        MemFreeInternal(&p);
    }
}

TEST(Mem, APeakIsNotKeptForEver)
{
    if (!Pooled())
        GTEST_SKIP() << "memory passes through to the heap";
    MemTrim();
    ASSERT_EQ(MemWaitingBytes(), 0u);
    for (uint32_t size : {64u, 16440u, 65664u}) {
        std::vector<void*> pieces;
        for (uint32_t total = 0; total < 8 * 1024 * 1024; total += size)
            pieces.push_back(MemAllocateUncleared(size, MemGetDefaultPoolId()));
        for (void*& p : pieces)
            MemFreeInternal(&p);
        uint64_t bound = size == 64 ? 256 * 1024 : 1024 * 1024;
        EXPECT_LE(MemWaitingBytes(), bound) << size;
        EXPECT_GT(MemWaitingBytes(), bound - size - 128) << size;
        MemTrim();
        EXPECT_EQ(MemWaitingBytes(), 0u);
    }
}

TEST(Mem, PiecesAboveTheLargestClassDoNotWait)
{
    MemTrim();
    void* p = MemAllocateFromPool(65665, MemGetDefaultPoolId());
    void* q = MemAllocateFromPool(5000000, MemGetDefaultPoolId());
    MemFreeInternal(&p);
    MemFreeInternal(&q);
    EXPECT_EQ(MemWaitingBytes(), 0u);
}

TEST(Mem, ABlockObjectWastesLittle)
{
    if (!Pooled())
        GTEST_SKIP() << "memory passes through to the heap";
    MemTrim();
    void* p = MemAllocateUncleared(16408 + 32, MemGetDefaultPoolId());
    MemFreeInternal(&p);
    EXPECT_LT(MemWaitingBytes(), 16440u + 128);
    // In general a class is at most a quarter longer than what it serves, and 16 bytes.
    std::mt19937 random(7);
    for (int i = 0; i < 2000; ++i) {
        uint32_t size = random() % 65665;
        MemTrim();
        void* piece = MemAllocateUncleared(size, MemGetDefaultPoolId());
        MemFreeInternal(&piece);
        ASSERT_GE(MemWaitingBytes(), size);
        ASSERT_LE(MemWaitingBytes(), size + size / 4 + 16) << size;
    }
}

TEST(Mem, ASecondFreeIsReportedAndChangesNothing)
{
    bool pooled = Pooled();
    for (uint32_t size : {1u, 100u, 20000u}) {
        TraceRecorder trace;
        CrashRecorder crashes;
        void* p = MemAllocateFromPool(size, MemGetDefaultPoolId());
        void* again = Hidden(p);
        uint32_t count = MemLiveCount();
        MemFreeInternal(&p);
        EXPECT_EQ(crashes.count(), 0u);
        MemFreeInternal(&again);
        EXPECT_EQ(again, nullptr);
        EXPECT_EQ(crashes.codes(), std::vector<uint32_t>{0});
        EXPECT_EQ(MemLiveCount(), count - 1);
        ASSERT_EQ(trace.lines().size(), 1u) << trace.dump();
        TraceRecorder::Line line = trace.lines()[0];
        EXPECT_EQ(line.tag, TAG);
        EXPECT_EQ(line.error, 1u);
        EXPECT_EQ(line.level, -1);
        std::string text = pooled ? "Memory freed twice at '" : "Memory freed twice or not from a";
        EXPECT_EQ(line.text.find(text), 0u) << line.text;
    }
}

TEST(Mem, APointerThatNoPoolHandedOutIsReported)
{
    alignas(16) static char buffer[64];
    TraceRecorder trace;
    CrashRecorder crashes;
    uint32_t count = MemLiveCount();
    void* p = Hidden(buffer + 32);
    MemFreeInternal(&p);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(crashes.count(), 1u);
    EXPECT_EQ(trace.countLevel(-1), 1u);
    EXPECT_TRUE(trace.hasPart("not from a pool")) << trace.dump();
    EXPECT_EQ(MemLiveCount(), count);
}

TEST(Mem, DamageToAnyByteAheadOfAPieceIsReported)
{
    if (!Pooled())
        GTEST_SKIP() << "memory passes through to the heap, without a prefix";
    CrashRecorder crashes;
    for (size_t i = 1; i <= 16; ++i) {
        TraceRecorder trace;
        void* p = MemAllocateFromPool(40, MemGetDefaultPoolId());
        auto* bytes = static_cast<uint8_t*>(Hidden(p));
        bytes[-static_cast<ptrdiff_t>(i)] ^= 0x10;
        void* damaged = p;
        MemFreeInternal(&damaged);
        EXPECT_EQ(damaged, nullptr);
        EXPECT_EQ(crashes.count(), i) << "byte " << i;
        EXPECT_TRUE(trace.hasPart("Memory damaged or not from a pool at '")) << trace.dump();
        // It was left alone: mended, it can be freed.
        bytes[-static_cast<ptrdiff_t>(i)] ^= 0x10;
        MemFreeInternal(&p);
        EXPECT_EQ(crashes.count(), i);
    }
}

TEST(Mem, AWriteAfterTheFreeIsReportedByTheNextAllocation)
{
    if (!Pooled())
        GTEST_SKIP() << "memory passes through to the heap";
    TraceRecorder trace;
    CrashRecorder crashes;
    void* p = MemAllocateFromPool(720, MemGetDefaultPoolId());
    auto* stale = static_cast<uint8_t*>(Hidden(p));
    MemFreeInternal(&p);
    stale[3] ^= 0x40;
    void* q = MemAllocateFromPool(720, MemGetDefaultPoolId());
    EXPECT_EQ(crashes.count(), 1u);
    EXPECT_TRUE(trace.hasPart("Memory written after it was freed at '")) << trace.dump();
    ASSERT_NE(q, nullptr);
    EXPECT_NE(q, stale);
    MemFreeInternal(&q);
    EXPECT_EQ(crashes.count(), 1u);
}

TEST(Mem, RandomUseKeepsContentsAndCounts)
{
    std::mt19937_64 random(TestSeed());
    struct Piece {
        uint8_t* bytes = nullptr;
        uint32_t size = 0;
        uint8_t fill = 0;
    };
    uint64_t liveBytes = MemLiveBytes();
    std::vector<Piece> pieces(200);
    for (int step = 0; step < 50000; ++step) {
        Piece& piece = pieces[random() % pieces.size()];
        if (piece.bytes) {
            for (uint32_t i = 0; i < piece.size; i += 1 + i / 8)
                ASSERT_EQ(piece.bytes[i], piece.fill);
            liveBytes -= piece.size;
            MemFree(piece.bytes);
        } else {
            piece.size = static_cast<uint32_t>((random() & 0xFFFFFF) >> random() % 24) % 200000;
            piece.fill = static_cast<uint8_t>(random());
            bool clear = random() % 2;
            piece.bytes = static_cast<uint8_t*>(
                clear ? MemAllocateFromPool(piece.size, 1) : MemAllocateUncleared(piece.size, 1));
            ASSERT_NE(piece.bytes, nullptr);
            for (uint32_t i = 0; clear && i < piece.size; i += 1 + i / 8)
                ASSERT_EQ(piece.bytes[i], 0);
            memset(piece.bytes, piece.fill, piece.size);
            liveBytes += piece.size;
        }
        if (step % 5000 == 0)
            MemTrim();
        ASSERT_EQ(MemLiveBytes(), liveBytes);
    }
    for (Piece& piece : pieces)
        MemFree(piece.bytes);
}

TEST(Mem, ServesSeveralThreadsAlsoWhenOneFreesWhatAnotherAllocated)
{
    uint32_t count = MemLiveCount();
    uint64_t bytes = MemLiveBytes();
    // Each holds a number in its first word that says what the rest is.
    std::array<std::atomic<uint32_t*>, 64> exchange{};
    std::atomic<uint32_t> wrong{0};
    auto check = [&](uint32_t* piece) {
        for (uint32_t i = 1; i < 6; ++i)
            wrong += piece[i] != piece[0] + i;
    };
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            for (int step = 0; step < 20000; ++step) {
                // Few sizes, so that the threads meet at the same class.
                auto* piece = static_cast<uint32_t*>(
                    MemAllocateFromPool(24 + 16 * (random() % 4), MemGetDefaultPoolId()));
                for (uint32_t i = 0; i < 6; ++i)
                    wrong += piece[i] != 0;
                piece[0] = static_cast<uint32_t>(random());
                for (uint32_t i = 1; i < 6; ++i)
                    piece[i] = piece[0] + i;
                uint32_t* other = exchange[random() % exchange.size()].exchange(piece);
                if (other) {
                    check(other);
                    MemFree(other);
                }
                if (step % 4000 == 0)
                    MemTrim();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (auto& slot : exchange) {
        uint32_t* piece = slot.exchange(nullptr);
        if (piece)
            check(piece);
        MemFree(piece);
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(MemLiveCount(), count);
    EXPECT_EQ(MemLiveBytes(), bytes);
}

TEST(Mem, WhoeverFindsALockHeldWaitsHoweverLongThatTakes)
{
    static SpinLock lock;
    std::atomic<uint32_t> begun{0};
    uint32_t entered = 0; // under the lock
    lock.Lock();
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            ++begun;
            SpinLockGuard guard(lock);
            ++entered;
        });
    }
    while (begun < 3)
        std::this_thread::yield();
    // Long enough that they run out of quick tries.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(entered, 0u);
    lock.Unlock();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(entered, 3u);
}
