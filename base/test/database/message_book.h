// message_book.h: what the book of messages consists of, and how it is read out. A line of the book
// names a message as it stands in the sources, what its directives print, its error flag and level,
// and tells how to bring it about; what the trace then recorded must hold exactly that line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "nim/fault.h"
#include "support/trace_recorder.h"

// ---- what directives print --------------------------------------------------------------------

// An address that the test cannot know.
struct AnyAddress {};
inline constexpr AnyAddress ANY = {};

// Where a member of the scene lies.
template <class Member>
struct AddressOf {
    Member member;
};
template <class Member>
AddressOf<Member> At(Member member)
{
    return {member};
}

// The values of a message in their order: numbers, texts, addresses, and members or functions of
// the scene, which are asked for their value once the message was brought about. A driver may
// return them, too, where nobody else knows them.
template <class... Values>
std::tuple<Values...> With(Values... values)
{
    return {values...};
}

namespace book {

// One value as it is printed, with the kind of directive that prints it.
struct Printed {
    char kind; // 'd', 's' or 'p'
    std::string text;
};

inline Printed Address(const void* p)
{
    char text[32];
    std::snprintf(
        text, sizeof text, "%016llX",
        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return {'p', text};
}

template <class Number>
std::string Hexadecimal(Number number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(number));
    return text;
}

template <class Scene, class Value>
Printed Print(Scene& scene, const Value& value, char directive)
{
    if constexpr (std::is_same_v<Value, AnyAddress>)
        return {'p', "{p}"};
    else if constexpr (std::is_member_object_pointer_v<Value>)
        return Print(scene, scene.*value, directive);
    else if constexpr (std::is_member_function_pointer_v<Value>)
        return Print(scene, (scene.*value)(), directive);
    else if constexpr (std::is_integral_v<Value>)
        return {'d', directive == 'x' ? Hexadecimal(value) : std::to_string(value)};
    else if constexpr (std::is_same_v<Value, std::string> || std::is_same_v<Value, const char*>)
        return {'s', value};
    else if constexpr (std::is_pointer_v<Value> || std::is_null_pointer_v<Value>)
        return Address(value);
    else
        return Address(&(scene.*value.member));
}

// The message with its directives replaced by what they print.
template <class Scene, class... Values>
std::string Fill(const std::string& format, Scene& scene, const std::tuple<Values...>& values)
{
    std::string text;
    size_t from = 0;
    const auto add = [&](const auto& value) {
        const size_t at = format.find('%', from);
        const size_t letter = at == std::string::npos ? at : format.find_first_of("duxsp", at);
        if (letter == std::string::npos) {
            ADD_FAILURE() << "more values than directives";
            return;
        }
        const Printed printed = Print(scene, value, format[letter]);
        EXPECT_EQ(
            printed.kind,
            std::string("ux").find(format[letter]) == std::string::npos ? format[letter] : 'd')
            << "another kind of value";
        text += format.substr(from, at - from) + printed.text;
        from = letter + 1;
    };
    std::apply([&](const auto&... each) { (add(each), ...); }, values);
    EXPECT_EQ(format.find('%', from), std::string::npos) << "fewer values than directives";
    return text + format.substr(from);
}

// Whether a traced line is the text, addresses that nobody knows aside.
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

// Brings a message about; the text that it must have.
template <class Scene>
using Driver = std::function<std::string(Scene&)>;

template <class Scene, class Drive, class... Values>
Driver<Scene> MakeDriver(const char* format, Drive drive, const std::tuple<Values...>& values)
{
    return [=](Scene& scene) {
        if constexpr (std::is_void_v<std::invoke_result_t<Drive, Scene&>>) {
            drive(scene);
            return Fill(format, scene, values);
        } else {
            return Fill(format, scene, drive(scene));
        }
    };
}

} // namespace book

// ---- the lines of the book --------------------------------------------------------------------

template <class Scene>
struct BookLine {
    const char* format;
    uint32_t error;
    int32_t level;
    book::Driver<Scene> drive;
    size_t crashes; // how often the process would have ended

    template <class Drive, class... Values>
    BookLine(
        const char* lineFormat, const std::tuple<Values...>& values, uint32_t lineError,
        int32_t lineLevel, Drive lineDrive, size_t lineCrashes = 0)
        : format(lineFormat), error(lineError), level(lineLevel),
          drive(book::MakeDriver<Scene>(lineFormat, lineDrive, values)), crashes(lineCrashes)
    {
    }
    template <class Drive>
    BookLine(
        const char* lineFormat, uint32_t lineError, int32_t lineLevel, Drive lineDrive,
        size_t lineCrashes = 0)
        : BookLine(lineFormat, std::tuple<>(), lineError, lineLevel, lineDrive, lineCrashes)
    {
    }
};

// One message of the product log.
template <class Scene>
struct BookEntry {
    uint32_t id;
    uint32_t cls;
    const char* format;
    book::Driver<Scene> drive;

    template <class Drive, class... Values>
    BookEntry(
        uint32_t entryId, uint32_t entryClass, const char* entryFormat,
        const std::tuple<Values...>& values, Drive entryDrive)
        : id(entryId), cls(entryClass), format(entryFormat),
          drive(book::MakeDriver<Scene>(entryFormat, entryDrive, values))
    {
    }
    template <class Drive>
    BookEntry(uint32_t entryId, uint32_t entryClass, const char* entryFormat, Drive entryDrive)
        : BookEntry(entryId, entryClass, entryFormat, std::tuple<>(), entryDrive)
    {
    }
};

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
        EXPECT_TRUE(log.has(entry.id, entry.cls, text)) << log.dump();
        for (const LogRecorder::Message& message : log.messages()) {
            EXPECT_EQ(message.id, entry.id) << log.dump();
            EXPECT_EQ(message.cls, entry.cls) << log.dump();
        }
    }
}
