// message_book.h: what the book of messages consists of, and how it is read out. A line of the book
// names a message as it stands in the sources, with its level and its error flag, and tells how to
// bring it about; what the trace then recorded must hold exactly that line, tag and text included.
//
// Drivers return the text with its values filled in. "{p}" in it stands for an address that the
// test cannot know. A driver that returns nothing says: the text is the format itself.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <regex>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "nim/fault.h"
#include "support/trace_recorder.h"

// What the trace prints for %p.
inline std::string Pointer(const void* p)
{
    char text[32];
    std::snprintf(
        text, sizeof text, "%016llX",
        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

inline std::string Number(int64_t n)
{
    return std::to_string(n);
}

template <class Scene>
struct BookLine {
    const char* format;
    uint32_t error;
    int32_t level;
    std::function<std::string(Scene&)> drive;
    size_t crashes; // how often the process would have ended

    template <class Drive>
    BookLine(
        const char* lineFormat, uint32_t lineError, int32_t lineLevel, Drive lineDrive,
        size_t lineCrashes = 0)
        : format(lineFormat), error(lineError), level(lineLevel), crashes(lineCrashes)
    {
        if constexpr (std::is_void_v<std::invoke_result_t<Drive, Scene&>>) {
            drive = [lineDrive, lineFormat](Scene& scene) {
                lineDrive(scene);
                return std::string(lineFormat);
            };
        } else {
            drive = lineDrive;
        }
    }
};

// One message of the product log.
template <class Scene>
struct BookEntry {
    uint32_t id;
    uint32_t cls;
    const char* format;
    std::function<std::string(Scene&)> drive;
};

namespace book {

inline std::string Quoted(const std::string& text)
{
    std::string result;
    for (char c : text) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos)
            result += '\\';
        result += c;
    }
    return result;
}

// Whether a traced line is the text, addresses aside.
inline bool IsText(const std::string& traced, const std::string& text)
{
    const std::string wildcard = "{p}";
    const size_t digits = 16;
    size_t at = 0;
    size_t from = 0;
    for (size_t p = text.find(wildcard); p != std::string::npos; p = text.find(wildcard, from)) {
        if (traced.compare(at, p - from, text, from, p - from) != 0)
            return false;
        at += p - from;
        if (traced.size() < at + digits ||
            traced.substr(at, digits).find_first_not_of("0123456789ABCDEF") != std::string::npos)
            return false;
        at += digits;
        from = p + wildcard.size();
    }
    return traced.compare(at, std::string::npos, text, from, std::string::npos) == 0;
}

// The end of a long text, where a failure tells itself.
inline std::string End(const std::string& text)
{
    const size_t most = 4000;
    return text.size() > most ? text.substr(text.size() - most) : text;
}

// What a format can print.
inline std::regex FormatPattern(const std::string& format)
{
    static const std::regex directive("%(0[0-9])?(ld|lu|lx|I64d|I64u|d|x|p|s)");
    std::string pattern;
    auto from = format.cbegin();
    for (std::sregex_iterator it(format.begin(), format.end(), directive), end; it != end; ++it) {
        pattern += Quoted(std::string(from, (*it)[0].first));
        const std::string kind = (*it)[2];
        if (kind == "p")
            pattern += "([0-9A-F]{16}|\\{p\\})";
        else if (kind == "s")
            pattern += ".*";
        else if (kind == "lx" || kind == "x")
            pattern += "[0-9a-f]+";
        else
            pattern += "-?[0-9]+";
        from = (*it)[0].second;
    }
    return std::regex(pattern + Quoted(std::string(from, format.cend())));
}

} // namespace book

// Drives every line of a book, each in a scene of its own, and compares what was traced.
template <class Scene>
void ReadBook(const char* tag, const std::vector<BookLine<Scene>>& lines)
{
    for (const BookLine<Scene>& line : lines) {
        SCOPED_TRACE(line.format);
        TraceRecorder trace;
        LogRecorder log; // keeps it off the standard error
        std::string text;
        size_t crashes = 0;
        {
            CrashRecorder crash;
            Scene scene;
            text = line.drive(scene);
            crashes = crash.count();
        }
        FaultDisarmAll();
        EXPECT_EQ(crashes, line.crashes);
        EXPECT_TRUE(std::regex_match(text, book::FormatPattern(line.format)))
            << "'" << text << "' is not what the format prints";
        size_t seen = 0;
        for (const TraceRecorder::Line& traced : trace.lines()) {
            if (!book::IsText(traced.text, text))
                continue;
            ++seen;
            EXPECT_EQ(traced.tag, tag);
            EXPECT_EQ(traced.level, line.level) << traced.text;
            EXPECT_EQ(traced.error, line.error) << traced.text;
        }
        EXPECT_GT(seen, 0u) << "'" << text << "' was not traced\n" << book::End(trace.dump());
    }
}

// The same for the product log: exactly this message, with this class, and no other.
template <class Scene>
void ReadLogBook(const std::vector<BookEntry<Scene>>& entries)
{
    for (const BookEntry<Scene>& entry : entries) {
        SCOPED_TRACE(std::to_string(entry.id) + " " + entry.format);
        TraceRecorder trace;
        LogRecorder log;
        std::string text;
        {
            CrashRecorder crash;
            Scene scene;
            text = entry.drive(scene);
            EXPECT_EQ(crash.count(), 0u);
        }
        FaultDisarmAll();
        EXPECT_TRUE(std::regex_match(text, book::FormatPattern(entry.format))) << text;
        EXPECT_TRUE(log.has(entry.id, entry.cls, text)) << log.dump();
        for (const LogRecorder::Message& message : log.messages()) {
            EXPECT_EQ(message.id, entry.id) << log.dump();
            EXPECT_EQ(message.cls, entry.cls) << log.dump();
        }
    }
}
