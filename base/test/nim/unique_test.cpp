// unique_test.cpp: comparing and printing 32-byte ids.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>

#include "nim/unique.h"

TEST(Unique, IdsLiePacked)
{
    EXPECT_EQ(sizeof(UniqueId), 32u);
    EXPECT_EQ(alignof(UniqueId), 1u);
}

TEST(Unique, EqualMeansAll32Bytes)
{
    uint8_t a[34];
    uint8_t b[34];
    memset(a, 7, sizeof a);
    memset(b, 7, sizeof b);
    a[33] = 1; // behind the id, which begins at an odd address
    EXPECT_EQ(UniqueEqual(a + 1, b + 1), 1u);
    for (int i = 0; i < 32; ++i) {
        b[1 + i] ^= 0x80;
        EXPECT_EQ(UniqueEqual(a + 1, b + 1), 0u) << i;
        b[1 + i] ^= 0x80;
    }
}

TEST(Unique, NullEqualsNullOnly)
{
    UniqueId zero = {};
    EXPECT_EQ(UniqueEqual(nullptr, nullptr), 1u);
    EXPECT_EQ(UniqueEqual(&zero, nullptr), 0u);
    EXPECT_EQ(UniqueEqual(nullptr, &zero), 0u);
}

TEST(Unique, PrintsLowerCaseDigitsFirstByteFirst)
{
    UniqueId id;
    for (int i = 0; i < 32; ++i)
        id.b[i] = static_cast<uint8_t>(i * 0x11 + i);
    EXPECT_STREQ(
        UniqueToString(&id), "00122436485a6c7e90a2b4c6d8eafc0e20324456687a8c9eb0c2d4e6f80a1c2e");
    UniqueId zero = {};
    EXPECT_EQ(UniqueToString(&zero), std::string(64, '0'));
    EXPECT_STREQ(UniqueToString(nullptr), "(null)");
}

TEST(Unique, EightTextsOfAThreadStandAtOnce)
{
    const char* texts[8];
    for (uint8_t i = 0; i < 8; ++i) {
        UniqueId id = {};
        id.b[31] = i;
        texts[i] = UniqueToString(&id);
    }
    const char* elsewhere = nullptr;
    std::thread([&] {
        UniqueId id = {};
        id.b[0] = 0xFF;
        for (int i = 0; i < 20; ++i)
            elsewhere = UniqueToString(&id);
    }).join();
    EXPECT_NE(elsewhere, nullptr);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(texts[i], std::string(63, '0') + static_cast<char>('0' + i));
    EXPECT_EQ(std::set<const char*>(texts, texts + 8).size(), 8u);
}
