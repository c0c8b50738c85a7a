// logids.h: the numbers and classes under which the database library writes to the product log.
// Operators filter by them, so each stands for one text for ever; a new message takes a new number.
#pragma once

#include <cstdint>

#include "nim/log.h"

struct LogId {
    uint32_t number;
    uint32_t cls;
};

constexpr uint32_t LOG_CLASS_CHANGE = 96; // whatever changes files, and records read in part
constexpr uint32_t LOG_CLASS_READ = 80;   // whole records that cannot be read

constexpr LogId LOG_CONTROL_FLUSH = {1298, LOG_CLASS_CHANGE};
constexpr LogId LOG_BLOCK_FLUSH = {1299, LOG_CLASS_CHANGE};
constexpr LogId LOG_BLOCK_DISCARD = {1300, LOG_CLASS_CHANGE};
constexpr LogId LOG_UPDATE_TABLE = {1301, LOG_CLASS_CHANGE};
constexpr LogId LOG_WRITE_RECORD = {1302, LOG_CLASS_CHANGE};
constexpr LogId LOG_READ_RECORD = {1303, LOG_CLASS_READ};
constexpr LogId LOG_READ_HEADER = {1304, LOG_CLASS_READ};
constexpr LogId LOG_SEEK_RECORD = {1305, LOG_CLASS_READ};
constexpr LogId LOG_READ_FIELD = {1306, LOG_CLASS_CHANGE};
constexpr LogId LOG_READ_FIXED = {1307, LOG_CLASS_CHANGE};
constexpr LogId LOG_WRITE_MODIFIED = {1308, LOG_CLASS_CHANGE};

// LogMessage, and LogMessageWithContext, under a number and the class that goes with it.
template <class... Arguments>
void LogMessageAs(const LogId& id, const char* format, Arguments... arguments)
{
    LogMessage(id.number, id.cls, 0, format, arguments...);
}

template <class... Arguments>
void LogMessageWithContextAs(
    const LogId& id, const char* context, const char* format, Arguments... arguments)
{
    LogMessageWithContext(id.number, id.cls, 0, context, format, arguments...);
}
