// format_test.cpp: the message formatter against texts written by hand.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "format.h"

namespace {

template <typename... Args>
std::string Format(const char* format, Args... args)
{
    char buffer[512];
    uint32_t length = FormatMessageVa(buffer, sizeof buffer, format, args...);
    EXPECT_EQ(length, strlen(buffer)) << format;
    return buffer;
}

} // namespace

TEST(Format, PlainTextStaysAsItIs)
{
    EXPECT_EQ(Format(""), "");
    EXPECT_EQ(Format("Failed to flush database block"), "Failed to flush database block");
    EXPECT_EQ(Format("100%%"), "100%");
    EXPECT_EQ(Format("%%%%d"), "%%d");
    EXPECT_EQ(Format("a\xC3\xA4\nb"), "a\xC3\xA4\nb");
}

TEST(Format, LongIs32BitOnEveryPlatform)
{
    EXPECT_EQ(Format("%ld", int32_t{-1}), "-1");
    EXPECT_EQ(Format("%ld", INT32_MIN), "-2147483648");
    EXPECT_EQ(Format("%ld", INT32_MAX), "2147483647");
    EXPECT_EQ(Format("%lu", UINT32_MAX), "4294967295");
    EXPECT_EQ(Format("%lx", 0xDEADBEEFu), "deadbeef");
    EXPECT_EQ(Format("%lX", 0xDEADBEEFu), "DEADBEEF");
    EXPECT_EQ(Format("%04lx", 0x1Fu), "001f");
    EXPECT_EQ(Format("%02lx", 0x5u), "05");
    EXPECT_EQ(Format("%04lx", 0x12345u), "12345");
    // Neighbours would be off if one of them took 8 bytes of arguments.
    EXPECT_EQ(Format("%ld %lu %lx %ld", 1, 2u, 3u, -4), "1 2 3 -4");
}

TEST(Format, NumbersWithoutASizeAre32Bit)
{
    EXPECT_EQ(Format("%d", 0), "0");
    EXPECT_EQ(Format("%i", -17), "-17");
    EXPECT_EQ(Format("%u", 0x80000000u), "2147483648");
    EXPECT_EQ(Format("%x", 0u), "0");
    EXPECT_EQ(Format("%X", 0xabcu), "ABC");
    EXPECT_EQ(Format("%d%d%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, 7, 8), "12345678");
}

TEST(Format, I64Is64Bit)
{
    EXPECT_EQ(Format("%I64d", INT64_MIN), "-9223372036854775808");
    EXPECT_EQ(Format("%I64d", INT64_MAX), "9223372036854775807");
    EXPECT_EQ(Format("%I64u", UINT64_MAX), "18446744073709551615");
    EXPECT_EQ(Format("%I64x", uint64_t{0x0123456789abcdef}), "123456789abcdef");
    EXPECT_EQ(Format("%016I64X", uint64_t{0x0123456789abcdef}), "0123456789ABCDEF");
    EXPECT_EQ(Format("%lld %llu", int64_t{-5}, uint64_t{1} << 40), "-5 1099511627776");
    EXPECT_EQ(Format("%ld %I64d %ld", 1, int64_t{1} << 32, 3), "1 4294967296 3");
}

TEST(Format, PointersAre16UpperCaseDigits)
{
    EXPECT_EQ(Format("%p", reinterpret_cast<void*>(uintptr_t{0xabc123})), "0000000000ABC123");
    EXPECT_EQ(Format("0x%p", static_cast<void*>(nullptr)), "0x0000000000000000");
    EXPECT_EQ(Format("'%p'", reinterpret_cast<void*>(~uintptr_t{0})), "'FFFFFFFFFFFFFFFF'");
    EXPECT_EQ(Format("%18p|", static_cast<void*>(nullptr)), "  0000000000000000|");
    EXPECT_EQ(Format("%-18p|", static_cast<void*>(nullptr)), "0000000000000000  |");
}

TEST(Format, TextsAndCharacters)
{
    const char* none = nullptr;
    EXPECT_EQ(Format("%s", "abc"), "abc");
    EXPECT_EQ(Format("%s", ""), "");
    EXPECT_EQ(Format("%s", none), "(null)");
    EXPECT_EQ(Format("%10s|", none), "    (null)|");
    EXPECT_EQ(Format("%.3s", none), "(nu");
    EXPECT_EQ(Format("%5s|%-5s|%2s", "abc", "abc", "abc"), "  abc|abc  |abc");
    EXPECT_EQ(Format("%.2s|%.0s|%.9s|%.s", "abc", "abc", "abc", "abc"), "ab||abc|");
    EXPECT_EQ(Format("%6.2s|%-6.2s|", "abc", "abc"), "    ab|ab    |");
    EXPECT_EQ(Format("%s%s", "a", "b"), "ab");
    EXPECT_EQ(Format("%c%c", 'x', '%'), "x%");
    EXPECT_EQ(Format("%3c|%-3c|", 'x', 'y'), "  x|y  |");
    EXPECT_EQ(Format("%ls", "abc"), "abc"); // the size says nothing about a text
}

TEST(Format, APrecisionSparesATextItsEnd)
{
    const char unended[3] = {'a', 'b', 'c'};
    EXPECT_EQ(Format("%.3s", unended), "abc");
}

TEST(Format, WidthPrecisionAndFlags)
{
    EXPECT_EQ(Format("%5d|%-5d|%05d", 42, 42, 42), "   42|42   |00042");
    EXPECT_EQ(Format("%5d|%-5d|%05d", -42, -42, -42), "  -42|-42  |-0042");
    EXPECT_EQ(Format("%1d|%01d", 12345, 12345), "12345|12345");
    EXPECT_EQ(Format("%-05d|", 42), "42   |"); // to the left there are no zeros
    EXPECT_EQ(Format("%0-5d|", 42), "42   |");
    EXPECT_EQ(Format("%.5d|%.5d", 42, -42), "00042|-00042");
    EXPECT_EQ(Format("%8.5d|%-8.5d|", -42, -42), "  -00042|-00042  |");
    EXPECT_EQ(Format("%08.5d|", 42), "   00042|"); // with a precision the flag is idle
    EXPECT_EQ(Format("%.0d|%.d|%.0x|%3.0d|", 0, 0, 0u, 0), "|||   |");
    EXPECT_EQ(Format("%.0d", 7), "7");
    EXPECT_EQ(Format("%03x|%3x|%-3x|", 0xau, 0xau, 0xau), "00a|  a|a  |");
    EXPECT_EQ(Format("%08lx %08lx", 0u, 0xca8ab522u), "00000000 ca8ab522");
    EXPECT_EQ(Format("%25I64d|", INT64_MIN), "     -9223372036854775808|");
    EXPECT_EQ(Format("%025I64d", INT64_MIN), "-000009223372036854775808");
}

TEST(Format, WhatItDoesNotKnowStaysAsItIsWithTheRest)
{
    EXPECT_EQ(Format("%f %d", 1.5, 2), "%f %d");
    EXPECT_EQ(Format("%d %q %d", 1, 2), "1 %q %d");
    EXPECT_EQ(Format("50%"), "50%");
    EXPECT_EQ(Format("%"), "%");
    EXPECT_EQ(Format("%5"), "%5");
    EXPECT_EQ(Format("%-05.3l"), "%-05.3l");
    EXPECT_EQ(Format("%I6"), "%I6");
    EXPECT_EQ(Format("%I64"), "%I64");
    EXPECT_EQ(Format("%*d", 1), "%*d");
    EXPECT_EQ(Format("% d", 1), "% d");
}

TEST(Format, NullFormatIsPrintedAsSuch)
{
    char buffer[16];
    EXPECT_EQ(FormatMessageVa(buffer, sizeof buffer, nullptr), 6u);
    EXPECT_STREQ(buffer, "(null)");
}

TEST(Format, NeverWritesBehindTheBufferAndTellsTheWholeLength)
{
    const std::string whole = "abc -0042 00000000DEADBEEF xyz   |  q|%";
    for (uint32_t size = 0; size <= whole.size() + 3; ++size) {
        std::vector<char> buffer(size + 8, '#');
        uint32_t length = FormatMessageVa(
            buffer.data(), size, "%s %05d %p %-6s|%3c|%%", "abc", -42,
            reinterpret_cast<void*>(uintptr_t{0xDEADBEEF}), "xyz", 'q');
        EXPECT_EQ(length, whole.size());
        for (size_t i = size; i < buffer.size(); ++i)
            ASSERT_EQ(buffer[i], '#') << "size " << size;
        if (size != 0) {
            EXPECT_EQ(std::string(buffer.data()), whole.substr(0, size - 1)) << "size " << size;
        }
    }
    EXPECT_EQ(FormatMessageVa(nullptr, 0, "%ld", 12345), 5u);
}

TEST(Format, AWidthBeyondAllReasonIsCountedAndNotWritten)
{
    char buffer[16];
    EXPECT_EQ(FormatMessageVa(buffer, sizeof buffer, "%2000000000d", 7), 2000000000u);
    EXPECT_STREQ(buffer, "               ");
    EXPECT_EQ(FormatMessageVa(buffer, sizeof buffer, "%99999999999999999999d", 7), 0x7FFFFFFFu);
    EXPECT_EQ(
        FormatMessageVa(buffer, sizeof buffer, "%2000000000d%2000000000d%2000000000d", 7, 7, 7),
        0xFFFFFFFFu);
    EXPECT_EQ(FormatMessageVa(buffer, sizeof buffer, "%.2000000000d", -7), 2000000001u);
    EXPECT_STREQ(buffer, "-00000000000000");
}

TEST(Format, LongTextsAreWhole)
{
    std::string key(8168, 'k');
    std::vector<char> buffer(10000);
    EXPECT_EQ(FormatMessageVa(buffer.data(), 10000, "<%s>", key.c_str()), 8170u);
    EXPECT_EQ(std::string(buffer.data()), "<" + key + ">");
}
