/* The shared libraries as a C program meets them: public headers, libnim and libnimdb, no object
 * file of theirs linked in. Opens, creates, adds, finds, walks, reads back, closes, and does it
 * again on what is on disk. The other suites link the objects, so a name that is missing in
 * exports.txt, or two copies of some state, would show here only.
 *
 *   api_test DIRECTORY    an empty directory that it may fill
 */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "database/block.h"
#include "database/dbconfig.h"
#include "database/dbrecord.h"
#include "database/index.h"
#include "nim/nim.h"

static unsigned gChecks;
static unsigned gFailures;

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        ++gChecks;                                                                                 \
        if (!(condition)) {                                                                        \
            ++gFailures;                                                                           \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition);                \
        }                                                                                          \
    } while (0)

#define RECORDS 5000 /* more than a leaf holds, so that every index has branches */
#define ITEM_MAGIC 0xc8495445u
#define ITEM_FORMAT "i;s;i;q;u;b;d;n4;"
#define ITEM_FIELDS                                                                                \
    "Id, Name;Indexed, Size;Indexed, Stamp;Indexed;Unique, Key;Indexed;Unique, Even;Indexed, "     \
    "Bytes, Tag;Indexed;Case Sensitive"

typedef struct Item {
    int32_t id;
    char* name;
    int32_t size;
    int64_t stamp;
    UniqueId key;
    int32_t bEven;
    ObjData bytes;
    uint8_t tag[4];
} Item;

/* What record n holds is a function of n, so that everything can be checked without a copy. */
static void NameOf(char* name, uint32_t n)
{
    sprintf(name, "Item %05u", (n * 7919u) % RECORDS);
}
static int32_t SizeOf(uint32_t n)
{
    return (int32_t)(n % 10) - 5;
}
static int64_t StampOf(uint32_t n)
{
    return ((int64_t)n - RECORDS / 2) * 10000000000;
}
static UniqueId KeyOf(uint32_t n)
{
    UniqueId key;
    memset(key.b, 0, sizeof key.b);
    key.b[0] = (uint8_t)(n * 37u);
    memcpy(key.b + 28, &n, sizeof n);
    return key;
}

static void CheckItem(const Item* item, uint32_t n)
{
    char name[32];
    UniqueId key = KeyOf(n);
    CHECK(item != NULL);
    if (item == NULL)
        return;
    NameOf(name, n);
    CHECK(ObjGetMagic(item) == ITEM_MAGIC);
    CHECK(item->id == (int32_t)n);
    CHECK(item->name != NULL && strcmp(item->name, name) == 0);
    CHECK(item->size == SizeOf(n));
    CHECK(item->stamp == StampOf(n));
    CHECK(UniqueEqual(&item->key, &key) == TRUE);
    CHECK(item->bEven == (int32_t)(n % 2 == 0));
    CHECK(item->bytes.size == n % 20);
    CHECK(item->bytes.size == 0 || ((const uint8_t*)item->bytes.data)[0] == (uint8_t)n);
    CHECK(memcmp(item->tag, "tag", 4) == 0);
}

static Item* NewItem(uint32_t n)
{
    uint32_t pool = MemGetDefaultPoolId();
    char name[32];
    ObjTemplate* tmpl = NULL;
    void* object = NULL;
    Item* item;
    CHECK(ObjTemplateCreateInternal(&tmpl, sizeof(Item), ITEM_MAGIC, ITEM_FORMAT, NULL) == TRUE);
    CHECK(ObjTemplateCreateInstanceFromPool(&object, tmpl, pool) == TRUE);
    item = (Item*)object;
    if (item == NULL)
        return NULL;
    NameOf(name, n);
    item->name = StrDuplicateIntoPool(name, pool);
    item->size = SizeOf(n);
    item->stamp = StampOf(n);
    item->key = KeyOf(n);
    item->bEven = n % 2 == 0;
    item->bytes.size = n % 20;
    item->bytes.data = MemAllocateFromPool(n % 20, pool);
    memset(item->bytes.data, (int)(uint8_t)n, n % 20);
    memcpy(item->tag, "tag", 4);
    return item;
}

static void OpenBoth(void** ppDatabase, void** ppTable)
{
    CHECK(IndxOpenDatabase(ppDatabase, "api", NULL, NULL) == TRUE);
    CHECK(
        IndxOpenTableInternal(
            ppTable, *ppDatabase, "items", "items", ITEM_MAGIC, ITEM_FORMAT, ITEM_FIELDS, FALSE,
            3) == TRUE);
}

static void CloseBoth(void** ppDatabase, void** ppTable)
{
    CHECK(IndxReleaseTable(ppTable) == TRUE);
    CHECK(*ppTable == NULL);
    CHECK(IndxCloseDatabase(ppDatabase) == TRUE);
    CHECK(*ppDatabase == NULL);
    CHECK(IndxCloseDatabase(ppDatabase) == FALSE);
}

/* The refusals below trace a failure: wanted here, so it is kept and not shown. */
static char gLastFailure[256];
static void KeepFailure(void* context, const TraceLine* line)
{
    (void)context;
    strncpy(gLastFailure, line->text, sizeof gLastFailure - 1);
}

static void AddAll(void* oTable)
{
    uint32_t n;
    CHECK(IndxNextId(oTable) == 1);
    for (n = 1; n <= RECORDS; ++n) {
        uint32_t id = 0;
        Item* item = NewItem(n);
        CHECK(IndxAddObjectToTable(&id, oTable, item) == TRUE);
        CHECK(id == n);
        ObjRelease(item);
    }
}

/* The unique keys refuse what they hold already, and the refusal leaves nothing behind. */
static void RefuseDuplicate(void* oTable)
{
    uint32_t id = 77;
    Item* item = NewItem(1);
    CHECK(IndxAddObjectToTable(&id, oTable, item) == FALSE);
    CHECK(IndxError() == INDX_ERROR_UPDATE);
    CHECK(id == 77);
    CHECK(strcmp(gLastFailure, "Failed to update indices") == 0);
    CHECK(IndxNextId(oTable) == RECORDS + 2);
    ObjRelease(item);
}

static void FindOne(void* oTable, const char* field, uint32_t id, void* oKey, uint32_t expected)
{
    void* oCursor = NULL;
    void* object = NULL;
    uint32_t foundId = 0;
    CHECK(IndxGetFieldCursor(&oCursor, oTable, field) == TRUE);
    CHECK(IndxFindKey(oCursor, id, oKey) == INDX_RESULT_FOUND);
    IndxCursorGetId(&foundId, oCursor);
    CHECK(foundId == expected);
    CHECK(IndxGetObjectAtCursor(&object, oCursor) == TRUE);
    CheckItem((const Item*)object, expected);
    ObjReleaseInternal(&object);
    ObjReleaseInternal(&oKey);
    CHECK(IndxReleaseCursor(&oCursor) == TRUE);
    CHECK(oCursor == NULL);
}

static void FindSome(void* oTable)
{
    uint32_t n;
    for (n = 1; n <= RECORDS; n += 97) {
        char name[32];
        char* p;
        UniqueId key = KeyOf(n);
        NameOf(name, n);
        for (p = name; *p; ++p)
            *p = *p == 'I' ? 'i' : *p == 'e' ? 'E' : *p; /* "iTEm" finds "Item" */
        FindOne(oTable, "Id", n, NULL, n);
        FindOne(oTable, "name", 0, ObjStringNew(name), n);
        FindOne(oTable, "SIZE", n, ObjIntegerNew(SizeOf(n)), n);
        FindOne(oTable, "Stamp", 0, ObjInt64New(StampOf(n)), n);
        FindOne(oTable, "Key", 0, ObjUniqueNew(&key), n);
        FindOne(oTable, "Tag", n, ObjStringNew("tag"), n);
    }
}

static void FindNothing(void* oTable)
{
    void* oCursor = NULL;
    void* oKey = ObjStringNew("no such item");
    CHECK(IndxGetFieldCursor(&oCursor, oTable, "Name") == TRUE);
    CHECK(IndxFindKey(oCursor, 0, oKey) == INDX_RESULT_NOT_FOUND);
    ObjReleaseInternal(&oKey);
    oKey = ObjIntegerNew(1);
    CHECK(IndxFindKey(oCursor, 0, oKey) == INDX_RESULT_KEY_OBJECT);
    ObjReleaseInternal(&oKey);
    CHECK(IndxFindKey(NULL, 0, NULL) == INDX_RESULT_CURSOR);
    CHECK(IndxReleaseCursor(&oCursor) == TRUE);
    CHECK(IndxGetFieldCursor(&oCursor, oTable, "Even") == FALSE);
    CHECK(IndxError() == INDX_ERROR_NOT_INDEXED);
    CHECK(IndxGetFieldCursor(&oCursor, oTable, "Colour") == FALSE);
    CHECK(IndxError() == INDX_ERROR_NO_FIELD);
}

/* Forwards through every index in order, and backwards through one. */
static void WalkAll(void* oTable)
{
    static const char* const fields[] = {"Id", "Name", "Size", "Stamp", "Key", "Tag"};
    uint32_t count, i;
    void* oCursor = NULL;
    for (i = 0; i < sizeof fields / sizeof fields[0]; ++i) {
        Item* before = NULL;
        int32_t result;
        CHECK(IndxGetFieldCursor(&oCursor, oTable, fields[i]) == TRUE);
        count = 0;
        for (result = IndxFirstKey(oCursor); result == INDX_RESULT_FOUND;
             result = IndxNextKey(oCursor)) {
            void* object = NULL;
            Item* item;
            CHECK(IndxGetObjectAtCursor(&object, oCursor) == TRUE);
            item = (Item*)object;
            CheckItem(item, item ? (uint32_t)item->id : 0);
            if (before != NULL && item != NULL) {
                CHECK(i != 0 || item->id == before->id + 1);
                CHECK(i != 1 || strcmp(item->name, before->name) > 0);
                CHECK(
                    i != 2 || item->size > before->size ||
                    (item->size == before->size && item->id > before->id));
                CHECK(i != 3 || item->stamp > before->stamp);
                CHECK(i != 4 || memcmp(item->key.b, before->key.b, 32) > 0);
                CHECK(i != 5 || item->id == before->id + 1);
            }
            ObjRelease(before);
            before = item;
            ++count;
        }
        ObjRelease(before);
        CHECK(result == INDX_RESULT_NO_KEY);
        CHECK(count == RECORDS);
        CHECK(IndxReleaseCursor(&oCursor) == TRUE);
    }

    CHECK(IndxGetFieldCursor(&oCursor, oTable, "Stamp") == TRUE);
    for (count = 0; count < RECORDS; ++count) {
        uint32_t id = 0;
        CHECK((count ? IndxPreviousKey(oCursor) : IndxLastKey(oCursor)) == INDX_RESULT_FOUND);
        IndxCursorGetId(&id, oCursor);
        CHECK(id == RECORDS - count);
    }
    CHECK(IndxPreviousKey(oCursor) == INDX_RESULT_NO_KEY);
    CHECK(IndxReleaseCursor(&oCursor) == TRUE);
}

/* A record as it is stored, without decoding. */
static void ReadEncoded(void* oTable)
{
    uint32_t offset = 0;
    void* oCursor = NULL;
    void* oBlob = NULL;
    void* object = NULL;
    CHECK(IndxGetFieldCursor(&oCursor, oTable, "Id") == TRUE);
    CHECK(IndxFindKey(oCursor, 42, NULL) == INDX_RESULT_FOUND);
    CHECK(IndxCursorGetOffset(&offset, oCursor) == TRUE);
    CHECK(IndxGetRecord(&oBlob, oTable, offset) == TRUE);
    ObjReleaseInternal(&oBlob);
    CHECK(IndxGetRecordAtCursor(&oBlob, oCursor) == TRUE);
    CHECK(ObjGetMagic(oBlob) == DB_BLOB_MAGIC);
    if (oBlob != NULL) {
        DbBlob* blob = (DbBlob*)oBlob;
        ObjTemplate* tmpl = NULL;
        int32_t id = 0;
        CHECK(blob->magic == ITEM_MAGIC);
        ObjTemplateCreateInternal(&tmpl, sizeof(Item), ITEM_MAGIC, ITEM_FORMAT, NULL);
        CHECK(DbFormatGetInteger(&id, &blob->data, tmpl, 1) == TRUE);
        CHECK(id == 42);
        CHECK(DbConvertObjectFromDbFormat(&object, oBlob) == TRUE);
        CheckItem((const Item*)object, 42);
    }
    ObjReleaseInternal(&object);
    ObjReleaseInternal(&oBlob);
    CHECK(IndxReleaseCursor(&oCursor) == TRUE);
}

static void CheckVersion(void* oDatabase)
{
    uint32_t version = 0;
    void* oTable = NULL;
    char* text;
    CHECK(IndxGetTableVersion(&version, "items", oDatabase) == TRUE);
    CHECK(version == 3);
    CHECK(
        IndxOpenTableInternal(
            &oTable, oDatabase, "items", "items", ITEM_MAGIC, ITEM_FORMAT, ITEM_FIELDS, FALSE, 4) ==
        FALSE);
    CHECK(strcmp(gLastFailure, "Wrong table version - wanted '4', is '3'") == 0);
    CHECK(
        IndxOpenTableInternal(
            &oTable, oDatabase, "items", "items", ITEM_MAGIC, "i;s;", "Id,Name", FALSE, 3) ==
        FALSE);
    CHECK(IndxError() == INDX_ERROR_SHAPE);
    CHECK(strcmp(gLastFailure, "Shape of table has changed") == 0);
    CHECK(oTable == NULL);
    text = IndxTableVersionString(INDX_VERSION_ANY);
    CHECK(text != NULL && strcmp(text, "Any") == 0);
    MemFree(text);
}

/* The exported variable is the library's own, not a copy. */
static void CheckClusteredMode(void)
{
    CHECK(DbSetClusteredMode(DB_CLUSTERED_MODE) == DB_CLUSTERED_MODE);
    CHECK(gbDbClusteredMode == DB_CLUSTERED_MODE);
    gbDbClusteredMode = 0;
    CHECK(DbGetClusteredMode() == 0);
}

int main(int argc, char** argv)
{
    void* oDatabase = NULL;
    void* oTable = NULL;
    if (argc != 2 || !PathSetHome(argv[1])) {
        fprintf(stderr, "api_test DIRECTORY\n");
        return 2;
    }
    TraceSetSink(KeepFailure, NULL, -1);
    CheckClusteredMode();

    OpenBoth(&oDatabase, &oTable);
    AddAll(oTable);
    RefuseDuplicate(oTable);
    FindSome(oTable);
    CloseBoth(&oDatabase, &oTable);

    OpenBoth(&oDatabase, &oTable);
    CHECK(IndxNextId(oTable) == RECORDS + 1);
    FindSome(oTable);
    FindNothing(oTable);
    WalkAll(oTable);
    ReadEncoded(oTable);
    CheckVersion(oDatabase);
    CloseBoth(&oDatabase, &oTable);
    MemTrim();

    printf("%u checks, %u failed\n", gChecks, gFailures);
    return gFailures ? 1 : 0;
}
