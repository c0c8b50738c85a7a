/* guide.c: the program that doc/guide.md builds up step by step, in plain C11. It keeps a small
 * catalogue of books: a table with three indexes, a walk, a modification and a deletion.
 *
 *   guide [DIRECTORY]    where the database directory goes; the present directory without it
 *
 * The parts between the marks "guide: name" stand in the guide word for word.
 */
#include <stdio.h>
#include <stdlib.h>

/* guide: include */
#include <database/dbconfig.h>
#include <database/index.h>
#include <database/indexwrappers.h>
#include <nim/nim.h>
/* guide: end */

/* guide: book */
#define BOOK_MAGIC 0xc8b00c01u /* names the type; (magic & 0xf8000000) must be 0xc8000000 */
#define BOOK_FORMAT "i;s;s;i;b;"

/* The items of the format, in order, as they lie in memory. */
typedef struct Book {
    int32_t id;  /* "Id": issued by the table */
    char* title; /* texts belong to the object and come from the pool */
    char* author;
    int32_t year;
    int32_t lent;
} Book;
/* guide: end */

static void Fail(const char* what)
{
    /* guide: error */
    fprintf(stderr, "%s failed, last error %u\n", what, (unsigned)IndxError());
    /* guide: end */
    exit(EXIT_FAILURE);
}

/* guide: add */
static void AddBook(void* table, const char* title, const char* author, int32_t year)
{
    ObjTemplate* type = NULL;
    void* object = NULL;
    if (!ObjTemplateCreateInternal(&type, OBJ_SIZE_COMPUTED, BOOK_MAGIC, BOOK_FORMAT, NULL) ||
        !ObjTemplateCreateInstanceFromPool(&object, type, MemGetDefaultPoolId()))
        Fail("making a book");
    Book* book = object;
    book->title = StrDuplicateIntoPool(title, MemGetDefaultPoolId());
    book->author = StrDuplicateIntoPool(author, MemGetDefaultPoolId());
    book->year = year;

    uint32_t id = 0;
    if (!IndxAddObjectToTable(&id, table, object))
        Fail("adding a book");
    printf("added %u: %s\n", (unsigned)id, title);
    ObjReleaseInternal(&object);
}
/* guide: end */

/* guide: find */
static void* FindBook(void* table, const char* title)
{
    void* key = ObjStringNew(title);
    void* object = NULL;
    if (!IndxGetObjectFromTable(&object, table, "Title", 0, key))
        printf("no book called %s\n", title);
    ObjReleaseInternal(&key);
    return object; /* the caller's: give it back with ObjReleaseInternal */
}
/* guide: end */

/* guide: walk */
static uint32_t PrintBook(void* object, void* context)
{
    const Book* book = object;
    uint32_t* count = context;
    ++*count;
    printf(
        "  %d  %s: %s%s\n", (int)book->year, book->author, book->title,
        book->lent ? " (lent)" : "");
    return 1; /* go on */
}

static uint32_t PrintByYear(void* table)
{
    uint32_t count = 0;
    if (IndxWalkTable(table, "Year", PrintBook, &count) != 1)
        Fail("walking the table");
    return count;
}
/* guide: end */

/* guide: cursor */
static uint32_t CountBooksOf(void* table, const char* author)
{
    void* cursor = NULL;
    if (!IndxGetFieldCursor(&cursor, table, "Author"))
        Fail("opening a cursor");
    void* key = ObjStringNew(author);
    uint32_t count = 0;
    for (int32_t result = IndxFindKey(cursor, 0, key); result == INDX_RESULT_FOUND;
         result = IndxNextMatchingKey(cursor))
        ++count;
    ObjReleaseInternal(&key);
    IndxReleaseCursor(&cursor);
    return count;
}
/* guide: end */

/* guide: modify */
static void LendBook(void* table, const char* title)
{
    void* object = FindBook(table, title);
    if (!object)
        return;
    ((Book*)object)->lent = 1;
    if (!IndxModifyObject(table, object)) /* found again by the id in it */
        Fail("modifying a book");
    ObjReleaseInternal(&object);
}
/* guide: end */

/* guide: delete */
static void DeleteBook(void* table, const char* title)
{
    void* key = ObjStringNew(title);
    if (!IndxDeleteObjectFromTable(table, "Title", 0, key))
        Fail("deleting a book");
    ObjReleaseInternal(&key);
}
/* guide: end */

/* guide: open */
static void* OpenBooks(void** database)
{
    void* table = NULL;
    if (!IndxOpenDatabase(database, "library", NULL, NULL))
        Fail("opening the database");
    if (!IndxOpenTableInternal(
            &table, *database, "Books", "Books", BOOK_MAGIC, BOOK_FORMAT,
            "Id, Title;Indexed;Unique, Author;Indexed, Year;Indexed, Lent", 0, INDX_VERSION_ANY))
        Fail("opening the table");
    return table;
}
/* guide: end */

int main(int argc, char** argv)
{
    /* guide: home */
    PathSetHome(argc > 1 ? argv[1] : "."); /* databases lie in <home>/db */
    /* guide: end */

    /* guide: first */
    void* database = NULL;
    void* table = OpenBooks(&database);
    AddBook(table, "A Treatise on Nodes", "Ash", 1994);
    AddBook(table, "Blocks and Chains", "Birch", 1987);
    AddBook(table, "Cursors at Rest", "Ash", 2003);
    printf(
        "%u books, %u of them by Ash\n", (unsigned)PrintByYear(table),
        (unsigned)CountBooksOf(table, "ash"));
    /* guide: end */

    /* guide: close */
    IndxReleaseTable(&table);
    IndxCloseDatabase(&database);
    /* guide: end */

    /* guide: second */
    table = OpenBooks(&database);
    LendBook(table, "Cursors at Rest");
    DeleteBook(table, "Blocks and Chains");
    printf("%u books left\n", (unsigned)PrintByYear(table));
    /* guide: end */

    /* What a test of this program looks at: its exit status. */
    void* object = FindBook(table, "cursors at rest");
    const int good = object && ((Book*)object)->lent == 1 && ((Book*)object)->year == 2003 &&
                     !FindBook(table, "Blocks and Chains") && CountBooksOf(table, "Ash") == 2;
    ObjReleaseInternal(&object);
    IndxReleaseTable(&table);
    IndxCloseDatabase(&database);
    MemTrim();
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
