// format.cpp: turns a format and its arguments into text, alike on every platform.
//
// The host's own formatter cannot serve: `%ld` is 64-bit on Linux and 32-bit on Windows, `%I64d`
// and `%p` differ as well, and a null `%s` is undefined. Messages are compared by their text, so
// there is one formatter for all. It takes no memory and touches no locale.
//
// Invariant: `length` counts every byte of the text; bytes beyond the buffer are counted, not
// written.
#include "format.h"

#include <cstring>

namespace {

struct FormatOutput {
    char* buffer;
    uint32_t room; // bytes that may be written, the NUL not among them
    uint64_t length;
};

struct FormatDirective {
    bool left;
    bool zero;
    uint32_t width;
    bool hasPrecision;
    uint32_t precision;
    bool wide; // 64-bit argument
    char conversion;
};

constexpr uint32_t FORMAT_NUMBER_MAX = 0x7FFFFFFF; // of a width or precision
constexpr uint32_t FORMAT_DIGITS = 20;             // of the longest 64-bit number
constexpr uint32_t FORMAT_POINTER_DIGITS = 16;

} // namespace

static void FormatPut(FormatOutput* out, const char* bytes, size_t count)
{
    if (out->length < out->room) {
        size_t fits = out->room - out->length;
        memcpy(out->buffer + out->length, bytes, count < fits ? count : fits);
    }
    out->length += count;
}

static void FormatFill(FormatOutput* out, char c, uint32_t count)
{
    if (out->length < out->room) {
        uint64_t fits = out->room - out->length;
        memset(out->buffer + out->length, c, count < fits ? count : fits);
    }
    out->length += count;
}

// Text with blanks before or behind it.
static void
FormatPadded(FormatOutput* out, const FormatDirective* d, const char* bytes, size_t count)
{
    uint32_t blanks = count < d->width ? d->width - static_cast<uint32_t>(count) : 0;
    if (!d->left)
        FormatFill(out, ' ', blanks);
    FormatPut(out, bytes, count);
    if (d->left)
        FormatFill(out, ' ', blanks);
}

static void FormatNumber(FormatOutput* out, const FormatDirective* d, bool negative, uint64_t value)
{
    const char* symbols =
        d->conversion == 'X' || d->conversion == 'p' ? "0123456789ABCDEF" : "0123456789abcdef";
    uint32_t base = d->conversion == 'x' || d->conversion == 'X' || d->conversion == 'p' ? 16 : 10;
    char digits[FORMAT_DIGITS];
    uint32_t count = 0;
    for (uint64_t rest = value; rest != 0; rest /= base)
        digits[FORMAT_DIGITS - ++count] = symbols[rest % base];
    // Without a precision even 0 has a digit; with precision 0 it has none.
    uint32_t least = d->hasPrecision ? d->precision : 1;
    if (d->zero && !d->left && !d->hasPrecision && d->width > least + (negative ? 1 : 0))
        least = d->width - (negative ? 1 : 0);
    uint32_t zeros = count < least ? least - count : 0;
    uint64_t whole = uint64_t{zeros} + count + (negative ? 1 : 0);
    uint32_t blanks = whole < d->width ? d->width - static_cast<uint32_t>(whole) : 0;
    if (!d->left)
        FormatFill(out, ' ', blanks);
    if (negative)
        FormatPut(out, "-", 1);
    FormatFill(out, '0', zeros);
    FormatPut(out, digits + FORMAT_DIGITS - count, count);
    if (d->left)
        FormatFill(out, ' ', blanks);
}

static const char* FormatReadNumber(const char* p, uint32_t* number)
{
    uint64_t n = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        n = n * 10 + static_cast<uint32_t>(*p - '0');
        if (n > FORMAT_NUMBER_MAX)
            n = FORMAT_NUMBER_MAX;
    }
    *number = static_cast<uint32_t>(n);
    return p;
}

// Reads flags, width, precision, size and conversion, from behind the '%'. Result: behind them, or
// null when they are none that the formatter knows.
static const char* FormatReadDirective(const char* p, FormatDirective* d)
{
    memset(d, 0, sizeof *d);
    for (; *p == '0' || *p == '-'; ++p)
        (*p == '0' ? d->zero : d->left) = true;
    p = FormatReadNumber(p, &d->width);
    if (*p == '.') {
        d->hasPrecision = true;
        p = FormatReadNumber(p + 1, &d->precision);
    }
    if (p[0] == 'I' && p[1] == '6' && p[2] == '4') {
        d->wide = true;
        p += 3;
    } else if (p[0] == 'l' && p[1] == 'l') {
        d->wide = true;
        p += 2;
    } else if (p[0] == 'l') {
        p += 1;
    }
    d->conversion = *p;
    return *p != 0 && strchr("diuxXpsc%", *p) != nullptr ? p + 1 : nullptr;
}

static void FormatString(FormatOutput* out, const FormatDirective* d, const char* text)
{
    if (!text)
        text = "(null)";
    // With a precision the text need not end: no byte behind it is looked at.
    size_t count = d->hasPrecision ? strnlen(text, d->precision) : strlen(text);
    FormatPadded(out, d, text, count);
}

// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): it does not see that the caller started the
// list
uint32_t FormatMessageV(char* buffer, uint32_t size, const char* format, va_list args)
{
    FormatOutput out = {buffer, size != 0 ? size - 1 : 0, 0};
    const char* p = format ? format : "(null)";
    while (*p) {
        const char* percent = strchr(p, '%');
        size_t plain = percent ? static_cast<size_t>(percent - p) : strlen(p);
        FormatPut(&out, p, plain);
        if (!percent)
            break;
        FormatDirective d;
        p = FormatReadDirective(percent + 1, &d);
        if (!p) {
            // What its argument is, and so where the next one lies, is unknown.
            FormatPut(&out, percent, strlen(percent));
            break;
        }
        switch (d.conversion) {
        case 'd':
        case 'i': {
            int64_t value = d.wide ? va_arg(args, int64_t) : va_arg(args, int32_t);
            uint64_t magnitude = static_cast<uint64_t>(value);
            FormatNumber(&out, &d, value < 0, value < 0 ? 0 - magnitude : magnitude);
            break;
        }
        case 'p':
            d.hasPrecision = true;
            d.precision = FORMAT_POINTER_DIGITS;
            FormatNumber(&out, &d, false, reinterpret_cast<uintptr_t>(va_arg(args, void*)));
            break;
        case 's':
            FormatString(&out, &d, va_arg(args, const char*));
            break;
        case 'c': {
            char c = static_cast<char>(va_arg(args, int));
            FormatPadded(&out, &d, &c, 1);
            break;
        }
        case '%':
            FormatPut(&out, "%", 1);
            break;
        default:
            FormatNumber(&out, &d, false, d.wide ? va_arg(args, uint64_t) : va_arg(args, uint32_t));
            break;
        }
    }
    if (size != 0)
        buffer[out.length < out.room ? out.length : out.room] = 0;
    return out.length < 0xFFFFFFFF ? static_cast<uint32_t>(out.length) : 0xFFFFFFFF;
}
// NOLINTEND(clang-analyzer-valist.Uninitialized)

uint32_t FormatMessageVa(char* buffer, uint32_t size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    uint32_t length = FormatMessageV(buffer, size, format, args);
    va_end(args);
    return length;
}
