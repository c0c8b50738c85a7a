// trace_recorder.h: what the services said, for exact comparison. While a recorder lives it takes
// the place of the sink (trace, log) or of the end of the process (crash); at its end the one
// before it comes back.
#pragma once

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "nim/log.h"
#include "nim/proc.h"
#include "nim/trace.h"

// Records every trace line up to a level (4: all that there are).
class TraceRecorder {
  public:
    struct Line {
        std::string tag; // as given, its eight blanks included
        uint32_t line;
        uint32_t error;
        int32_t level;
        std::string text;
    };

    explicit TraceRecorder(int32_t level = 4) : level_(level), outer_(current_)
    {
        current_ = this;
        TraceSetSink(Take, this, level_);
    }
    ~TraceRecorder()
    {
        current_ = outer_;
        if (outer_)
            TraceSetSink(Take, outer_, outer_->level_);
        else
            TraceSetSink(nullptr, nullptr, 0);
    }
    TraceRecorder(const TraceRecorder&) = delete;
    TraceRecorder& operator=(const TraceRecorder&) = delete;

    std::vector<Line> lines() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return lines_;
    }
    // The texts alone, for a comparison of the whole sequence.
    std::vector<std::string> texts() const
    {
        std::vector<std::string> result;
        for (const Line& line : lines())
            result.push_back(line.text);
        return result;
    }
    void clear()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        lines_.clear();
    }
    // Lines with exactly this text.
    size_t count(const std::string& text) const
    {
        return CountIf([&](const Line& l) { return l.text == text; });
    }
    bool has(const std::string& text) const { return count(text) != 0; }
    // Whether there is a line with exactly this tag, error flag, level and text.
    bool has(const std::string& tag, uint32_t error, int32_t level, const std::string& text) const
    {
        return CountIf([&](const Line& l) {
                   return l.tag == tag && l.error == error && l.level == level && l.text == text;
               }) != 0;
    }
    bool hasPart(const std::string& part) const
    {
        return CountIf([&](const Line& l) { return l.text.find(part) != std::string::npos; }) != 0;
    }
    // Lines of a level, for "no failure was traced": countLevel(-1) == 0.
    size_t countLevel(int32_t level) const
    {
        return CountIf([&](const Line& l) { return l.level == level; });
    }
    // Everything, one line each, for the message of a failing assertion.
    std::string dump() const
    {
        std::string result;
        for (const Line& l : lines())
            result += "[" + l.tag + "] " + std::to_string(l.line) + (l.error ? " E " : "   ") +
                      std::to_string(l.level) + " " + l.text + "\n";
        return result;
    }

  private:
    template <typename Test>
    size_t CountIf(Test test) const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), test));
    }
    static void Take(void* context, const TraceLine* line)
    {
        auto* self = static_cast<TraceRecorder*>(context);
        std::lock_guard<std::mutex> guard(self->mutex_);
        self->lines_.push_back({line->module, line->line, line->error, line->level, line->text});
    }

    static inline TraceRecorder* current_ = nullptr;
    int32_t level_;
    TraceRecorder* outer_;
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

// Records every message of the product log.
class LogRecorder {
  public:
    struct Message {
        uint32_t id;
        uint32_t cls;
        bool hasContext; // a context was given, if only an empty one
        std::string context;
        std::string text;
    };

    LogRecorder() : outer_(current_)
    {
        current_ = this;
        LogSetSink(Take, this);
    }
    ~LogRecorder()
    {
        current_ = outer_;
        LogSetSink(outer_ ? Take : nullptr, outer_);
    }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    std::vector<Message> messages() const
    {
        std::lock_guard<std::mutex> guard(mutex_);
        return messages_;
    }
    void clear()
    {
        std::lock_guard<std::mutex> guard(mutex_);
        messages_.clear();
    }
    bool empty() const { return messages().empty(); }
    size_t count(uint32_t id) const
    {
        size_t n = 0;
        for (const Message& m : messages())
            n += m.id == id;
        return n;
    }
    // Whether there is a message with exactly this id, class and text.
    bool has(uint32_t id, uint32_t cls, const std::string& text) const
    {
        for (const Message& m : messages())
            if (m.id == id && m.cls == cls && m.text == text)
                return true;
        return false;
    }
    std::string dump() const
    {
        std::string result;
        for (const Message& m : messages())
            result += std::to_string(m.id) + " [" + std::to_string(m.cls) + "] " + m.text + "\n";
        return result;
    }

  private:
    static void Take(void* context, const LogRecord* record)
    {
        auto* self = static_cast<LogRecorder*>(context);
        std::lock_guard<std::mutex> guard(self->mutex_);
        self->messages_.push_back(
            {record->id, record->cls, record->context != nullptr,
             record->context ? record->context : "", record->text});
    }

    static inline LogRecorder* current_ = nullptr;
    LogRecorder* outer_;
    mutable std::mutex mutex_;
    std::vector<Message> messages_;
};

// Lets ProcCrash return, and records its codes.
class CrashRecorder {
  public:
    CrashRecorder()
    {
        codes_.clear();
        former_ = ProcSetCrashHandler(Take);
    }
    ~CrashRecorder() { ProcSetCrashHandler(former_); }
    CrashRecorder(const CrashRecorder&) = delete;
    CrashRecorder& operator=(const CrashRecorder&) = delete;

    const std::vector<uint32_t>& codes() const { return codes_; }
    size_t count() const { return codes_.size(); }
    void clear() { codes_.clear(); }

  private:
    static void Take(uint32_t code) { codes_.push_back(code); }

    static inline std::vector<uint32_t> codes_;
    ProcCrashHandler former_;
};

inline std::ostream& operator<<(std::ostream& out, const TraceRecorder::Line& line)
{
    return out << "[" << line.tag << "] " << line.error << " " << line.level << " " << line.text;
}
