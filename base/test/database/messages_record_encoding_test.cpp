// messages_record_encoding_test.cpp: every message of the record encoding, with its level. The
// readers and writers of single fields have none.

#include "message_book.h"
#include "support/record_objects.h"

namespace {

constexpr const char* DBLIB = "DBLIB        ";
constexpr uint32_t MAGIC = 0xcabd0001; // -894631935 as a signed number

struct EncodingScene {
    void* out = nullptr;

    ~EncodingScene() { ObjReleaseInternal(&out); }

    // An object that holds the integer 5 as its nested object, encoded.
    static Held NestedRecord(uint32_t* pSize)
    {
        Instance object(MAGIC, "i;o;");
        void* oNested = ObjIntegerNew(5);
        *pSize = ObjSerializedSize(oNested);
        object.at<void*>(1) = oNested;
        return Encoded(object.get());
    }
};
using S = EncodingScene;

TEST(RecordEncodingMessages, FromObjectToRecord)
{
    const std::vector<BookLine<S>> lines = {
        {"Invalid object at '%p'", 0, -1,
         [](S& s) {
             Instance object(MAGIC, "i;");
             OBJ_HEADER(object.get())->magic = 0x48000001;
             EXPECT_EQ(DbConvertObjectToDbFormat(&s.out, object.get()), 0u);
             OBJ_HEADER(object.get())->magic = MAGIC;
             return With(object.get());
         },
         1},
        {"Corrupt object - no template at '%p'", 0, -1,
         [](S& s) {
             Instance object(MAGIC, "i;");
             OBJ_HEADER(object.get())->tmpl = nullptr;
             EXPECT_EQ(DbConvertObjectToDbFormat(&s.out, object.get()), 0u);
             OBJ_HEADER(object.get())->tmpl = object.pTemplate();
             return With(object.get());
         },
         1},
        {"Should not get these", 0, -1,
         [](S& s) { // as a damaged description would have it
             Instance object(MAGIC, "i;i;");
             auto* pItem = const_cast<ObjDbField*>(&ObjGetDbData(object.get())->fields[1]);
             pItem->kind = 5;
             EXPECT_EQ(DbConvertObjectToDbFormat(&s.out, object.get()), 0u);
             pItem->kind = OBJ_KIND_INTEGER;
         },
         1},
        {"Size of database BLOB is %ld bytes (%ld + %ld)", With(19, 16, 3), 0, 4,
         [](S&) {
             Instance object(MAGIC, "i;s;");
             object.setText(1, "ab");
             Encoded(object.get());
         }},
        {"Size of database BLOB is %ld bytes (%ld + %ld)", With(16, 16, 0), 0, 4,
         [](S&) { // nothing in the variable part
             Instance object(MAGIC, "i;b;");
             Encoded(object.get());
         }},
        {"size is %ld at %ld", 0, 4,
         [](S&) {
             uint32_t size = 0;
             S::NestedRecord(&size);
             return With(size, 16);
         }},
    };
    ReadBook(DBLIB, lines);
}

TEST(RecordEncodingMessages, FromRecordToObject)
{
    const std::vector<BookLine<S>> lines = {
        {"DbConvertObjectFromDbFormat(%p, %p)", 0, 4,
         [](S& s) {
             const Instance object(MAGIC, "i;");
             const Held blob = Encoded(object.get());
             EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, blob.get()), 1u);
             return With(&s.out, blob.get());
         }},
        {"Magic %ld format %s", 0, 4,
         [](S& s) {
             const Instance object(MAGIC, "i;b;");
             EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, Encoded(object.get()).get()), 1u);
             return With(static_cast<int32_t>(MAGIC), "i;b;");
         }},
        {"Magic %ld format %s", 0, 4,
         [](S& s) {
             const Held blob = MakeBlob(MAGIC, nullptr, std::string(16, '\0'));
             EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, blob.get()), 0u);
             return With(static_cast<int32_t>(MAGIC), "(null)");
         }},
        {"Size of database BLOB is %ld bytes", With(16), 0, 4,
         [](S& s) {
             const Instance object(MAGIC, "i;b;");
             EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, Encoded(object.get()).get()), 1u);
         }},
        {"Reconstruct Object from %ld bytes at %lx", 0, 4,
         [](S& s) {
             uint32_t size = 0;
             EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, S::NestedRecord(&size).get()), 1u);
             return With(size, 0x10);
         }},
        {"Reconstruct failed", 0, -1,
         [](S& s) {
             uint32_t size = 0;
             const Held blob = S::NestedRecord(&size);
             static_cast<char*>(static_cast<DbBlob*>(blob.get())->data.data)[16] ^= 1;
             EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, blob.get()), 1u);
         }},
        {"Should not get these", 0, -1,
         [](S& s) {
             const Held blob = MakeBlob(MAGIC, "i;p;", std::string(16, '\0'));
             EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, blob.get()), 0u);
         },
         1},
    };
    ReadBook(DBLIB, lines);
}

} // namespace
