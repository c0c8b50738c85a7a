// str.cpp: comparing, searching and copying texts.
//
// The bounded comparisons are what a search in an index spends its time in. They go eight bytes at
// a time as far as both sizes allow, and byte by byte from there; nothing is read behind a size.
// Texts without a size are read byte by byte, or by the C library: no word is loaded that might lie
// partly behind the NUL.
#include "nim/str.h"

#include <bit>
#include <cstring>

#include "format.h"
#include "nim/mem.h"

namespace {

constexpr uint64_t STR_ONES = 0x0101010101010101ull;
constexpr uint64_t STR_HIGHS = 0x8080808080808080ull;

struct StrFoldTable {
    uint8_t lower[256];
    constexpr StrFoldTable() : lower()
    {
        for (uint32_t i = 0; i < 256; ++i)
            lower[i] = static_cast<uint8_t>(i >= 'A' && i <= 'Z' ? i + ('a' - 'A') : i);
    }
};
constexpr StrFoldTable gStrFold;

// How a comparison sees bytes: as they are, or with A to Z folded to lower case.
struct StrExact {
    static uint8_t Byte(char c) { return static_cast<uint8_t>(c); }
    static uint64_t Word(uint64_t w) { return w; }
};

struct StrFolded {
    static uint8_t Byte(char c) { return gStrFold.lower[static_cast<uint8_t>(c)]; }
    // All eight bytes at once: the high bit of `upper` is set in those from A to Z. The sums cannot
    // carry into the next byte, since both terms are below 0x80.
    static uint64_t Word(uint64_t w)
    {
        uint64_t low = w & ~STR_HIGHS;
        uint64_t fromA = low + (0x80 - 'A') * STR_ONES;
        uint64_t aboveZ = low + (0x7F - 'Z') * STR_ONES;
        uint64_t upper = (fromA ^ aboveZ) & ~w & STR_HIGHS;
        return w | upper >> 2;
    }
};

} // namespace

static inline uint64_t StrLoad(const char* p)
{
    uint64_t w;
    memcpy(&w, p, sizeof w);
    return w;
}

// The high bit of the lowest zero byte is set; bits above it mean nothing.
static inline uint64_t StrZeroByte(uint64_t w)
{
    return (w - STR_ONES) & ~w & STR_HIGHS;
}

// Null sorts first. True when that decides.
static inline bool StrCompareNulls(const char* a, const char* b, int32_t* result)
{
    if (a && b)
        return false;
    *result = a ? 1 : (b ? -1 : 0);
    return true;
}

template <typename Fold>
static inline int32_t StrCompareSized(const char* a, size_t aSize, const char* b, size_t bSize)
{
    size_t common = aSize < bSize ? aSize : bSize;
    size_t i = 0;
    for (; i + 8 <= common; i += 8) {
        uint64_t wordA = Fold::Word(StrLoad(a + i));
        uint64_t wordB = Fold::Word(StrLoad(b + i));
        uint64_t differ = wordA ^ wordB;
        uint64_t zero = StrZeroByte(wordA);
        if ((differ | zero) == 0)
            continue;
        // Where the first difference lies, or the end of both if that comes before.
        int shift = std::countr_zero(differ | zero) & ~7;
        return static_cast<int32_t>(wordA >> shift & 0xFF) -
               static_cast<int32_t>(wordB >> shift & 0xFF);
    }
    for (; i < common; ++i) {
        int32_t byteA = Fold::Byte(a[i]);
        int32_t byteB = Fold::Byte(b[i]);
        if (byteA != byteB || byteA == 0)
            return byteA - byteB;
    }
    // One has ended, or both: what stands next in the longer one decides.
    int32_t nextA = i < aSize ? static_cast<uint8_t>(a[i]) : 0;
    int32_t nextB = i < bSize ? static_cast<uint8_t>(b[i]) : 0;
    return nextA - nextB;
}

uint32_t StrSize(const char* s)
{
    if (!s)
        return 0;
    size_t size = strlen(s) + 1;
    return size < 0xFFFFFFFF ? static_cast<uint32_t>(size) : 0xFFFFFFFF;
}

NimBool StrIsEmpty(const char* s)
{
    return !s || *s == 0 ? TRUE : FALSE;
}

int32_t StrCompare(const char* a, const char* b)
{
    int32_t result;
    return StrCompareNulls(a, b, &result) ? result : strcmp(a, b);
}

int32_t StrCompareNoCase(const char* a, const char* b)
{
    int32_t result;
    if (StrCompareNulls(a, b, &result))
        return result;
    // Most texts differ early. When they do not, finding both ends first pays.
    constexpr size_t EARLY = 16;
    for (size_t i = 0; i < EARLY; ++i) {
        int32_t byteA = StrFolded::Byte(a[i]);
        int32_t byteB = StrFolded::Byte(b[i]);
        if (byteA != byteB || byteA == 0)
            return byteA - byteB;
    }
    a += EARLY;
    b += EARLY;
    return StrCompareSized<StrFolded>(a, strlen(a), b, strlen(b));
}

int32_t StrCompareRange(const char* a, const char* b, uint32_t n)
{
    int32_t result;
    if (n == 0)
        return 0;
    return StrCompareNulls(a, b, &result) ? result : strncmp(a, b, n);
}

int32_t StrCompareRangeNoCase(const char* a, const char* b, uint32_t n)
{
    int32_t result;
    if (n == 0)
        return 0;
    if (StrCompareNulls(a, b, &result))
        return result;
    for (uint32_t i = 0; i < n; ++i) {
        int32_t byteA = StrFolded::Byte(a[i]);
        int32_t byteB = StrFolded::Byte(b[i]);
        if (byteA != byteB || byteA == 0)
            return byteA - byteB;
    }
    return 0;
}

int32_t StrCompareBounded(const char* a, uint32_t aSize, const char* b, uint32_t bSize)
{
    int32_t result;
    if (StrCompareNulls(a, b, &result))
        return result;
    return StrCompareSized<StrExact>(a, aSize, b, bSize);
}

int32_t StrCompareBoundedNoCase(const char* a, uint32_t aSize, const char* b, uint32_t bSize)
{
    int32_t result;
    if (StrCompareNulls(a, b, &result))
        return result;
    return StrCompareSized<StrFolded>(a, aSize, b, bSize);
}

const char* StrFindSubString(const char* text, const char* sub)
{
    return text && sub ? strstr(text, sub) : nullptr;
}

uint32_t StrGetChar(const char** cursor)
{
    if (!cursor || !*cursor || **cursor == 0)
        return 0;
    return static_cast<uint8_t>(*(*cursor)++);
}

const char* StrNextCharMatch(const char* s, uint32_t c)
{
    return s && c <= 0xFF ? strchr(s, static_cast<int>(c)) : nullptr;
}

char* StrDuplicateIntoPool(const char* s, uint32_t pool)
{
    if (!s)
        return nullptr;
    size_t length = strlen(s);
    return length < 0xFFFFFFFF ? StrDuplicateRangeIntoPool(s, pool, static_cast<uint32_t>(length))
                               : nullptr;
}

char* StrDuplicateRangeIntoPool(const char* start, uint32_t pool, uint32_t n)
{
    if (!start || n == 0xFFFFFFFF)
        return nullptr;
    char* copy = static_cast<char*>(MemAllocateUncleared(n + 1, pool));
    if (!copy)
        return nullptr;
    memcpy(copy, start, n);
    copy[n] = 0;
    return copy;
}

char* StrFromInteger(int64_t v, uint32_t pool)
{
    char text[24];
    uint32_t length = FormatMessageVa(text, sizeof text, "%I64d", v);
    return StrDuplicateRangeIntoPool(text, pool, length);
}
