// headers_test.cpp: the interface as C and as C++ see it. That each header compiles alone in both
// languages is a part of the build (headers_alone in base/test/CMakeLists.txt).
#include <gtest/gtest.h>

#include <type_traits>

#include "nim/nim.h"

extern "C" uint32_t HeadersInC(void);

TEST(Headers, ServeAProgramWrittenInC)
{
    EXPECT_EQ(HeadersInC(), 0u);
}

TEST(Headers, TruthValuesAre32BitOneAndZero)
{
    EXPECT_TRUE((std::is_same_v<NimBool, uint32_t>));
    EXPECT_EQ(TRUE, 1);
    EXPECT_EQ(FALSE, 0);
}

TEST(Headers, MemFreeTakesAVariableOfAnyPointerTypeInCxx)
{
    char* text = StrDuplicateIntoPool("abc", MemGetDefaultPoolId());
    ASSERT_NE(text, nullptr);
    MemFree(text);
    EXPECT_EQ(text, nullptr);
    const char* constant = StrFromInteger(5, MemGetDefaultPoolId());
    ASSERT_NE(constant, nullptr);
    MemFree(constant);
    EXPECT_EQ(constant, nullptr);
    void* untyped = MemAllocateFromPool(1, MemGetDefaultPoolId());
    ASSERT_NE(untyped, nullptr);
    MemFree(untyped);
    EXPECT_EQ(untyped, nullptr);
    MemFree(untyped); // null: nothing to do
}
