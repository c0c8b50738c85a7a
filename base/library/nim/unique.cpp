// unique.cpp: comparing and printing 32-byte ids.
#include "nim/unique.h"

#include <cstring>

static_assert(sizeof(UniqueId) == 32 && alignof(UniqueId) == 1, "ids lie packed in records");

namespace {

// Several ids may be arguments of one message.
constexpr uint32_t UNIQUE_TEXTS = 8;
thread_local char gUniqueTexts[UNIQUE_TEXTS][2 * sizeof(UniqueId) + 1];
thread_local uint32_t gUniqueNext = 0;

} // namespace

NimBool UniqueEqual(const void* a, const void* b)
{
    if (!a || !b)
        return a == b ? TRUE : FALSE;
    return memcmp(a, b, sizeof(UniqueId)) == 0 ? TRUE : FALSE;
}

const char* UniqueToString(const void* id)
{
    if (!id)
        return "(null)";
    char* text = gUniqueTexts[gUniqueNext++ % UNIQUE_TEXTS];
    const uint8_t* bytes = static_cast<const uint8_t*>(id);
    for (size_t i = 0; i < sizeof(UniqueId); ++i) {
        text[2 * i] = "0123456789abcdef"[bytes[i] >> 4];
        text[2 * i + 1] = "0123456789abcdef"[bytes[i] & 15];
    }
    text[2 * sizeof(UniqueId)] = 0;
    return text;
}
