// dbrecord_internal.h: what the encoding of records shows the layers above beyond dbrecord.h: the
// one way to make the object of a record, new BLOBs, and the layout of a format's records.
#pragma once

#include <cstdint>
#include <span>

#include "database/dbrecord.h"
#include "nim/object.h"

// The bytes of a data block, for example of a BLOB's.
inline std::span<const uint8_t> DbBytesOf(const ObjData& data)
{
    return {static_cast<const uint8_t*>(data.data), data.data ? data.size : 0};
}

// Decodes record bytes into a new object of the template that is registered for magic and format,
// the first one, whatever its size and destructor; where none is, into one of the format alone.
// Whatever makes the object of a record does it here, with the messages of
// DbConvertObjectFromDbFormat from "Magic %ld" on. `*ppObject` receives a new reference; null and
// false: a format that is none or refused, damaged bytes, no memory. Nothing outside of `record` is
// read.
[[nodiscard]] bool DbDecodeRecord(
    void** ppObject, uint32_t magic, const char* format, std::span<const uint8_t> record);

// A new BLOB without bytes; null without memory. The format is copied.
DbBlob* DbNewBlob(uint32_t magic, const char* format);

// How records of a format are laid out, which their magic has no part in. Asking registers no
// template for the objects of a host, who may do that later, with a tail and a destructor. Null: a
// format that is none or refused, or no memory. Lives as long as the process.
const ObjDbData* DbRecordLayout(const char* format);
