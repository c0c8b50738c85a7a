// golden_steps.h: the operations that made the golden database, in their order. Frozen.
#pragma once

#include "golden_people.h"

namespace golden {

inline void* ObjectOf(const Person& person)
{
    ObjTemplate* pTemplate = nullptr;
    void* oObject = nullptr;
    ObjTemplateCreateInternal(&pTemplate, sizeof(PersonBody), MAGIC, FORMAT, nullptr);
    if (!ObjTemplateCreateInstanceFromPool(&oObject, pTemplate, MemGetDefaultPoolId()))
        return nullptr;
    auto* pBody = static_cast<PersonBody*>(oObject);
    pBody->name = PoolText(*person.name);
    pBody->town = PoolText(*person.town);
    pBody->age = person.age;
    pBody->number = person.number;
    std::memcpy(&pBody->key, person.key.data(), person.key.size());
    pBody->photo = PoolData(person.photo);
    pBody->alive = person.alive;
    return oObject;
}

// Takes the keys of a record out of every index and ends the operation.
inline bool Delete(void* oTable, uint32_t id)
{
    void* oRecord = nullptr;
    void* oCursor = nullptr;
    bool good = IndxGetFieldCursor(&oCursor, oTable, "Id") &&
                IndxFindKey(oCursor, id, nullptr) == INDX_RESULT_FOUND &&
                IndxGetRecordAtCursor(&oRecord, oCursor);
    IndxReleaseCursor(&oCursor);
    for (const char* field : {"Id", "Name", "Town", "Age", "Number", "Key"}) {
        good = good && IndxGetFieldCursor(&oCursor, oTable, field) &&
               IndxDeleteKey(IndxAsCursor(oCursor), &static_cast<DbBlob*>(oRecord)->data);
        IndxReleaseCursor(&oCursor);
    }
    ObjReleaseInternal(&oRecord);
    return IndxUpdateTable(oTable) && good;
}

// Writes it under the product's home directory.
inline bool WriteDatabase()
{
    void* oDatabase = nullptr;
    void* oTable = nullptr;
    bool good =
        IndxOpenDatabase(&oDatabase, DATABASE, nullptr, nullptr) &&
        IndxOpenTableInternal(&oTable, oDatabase, TABLE, TABLE, MAGIC, FORMAT, FIELDS, 1, VERSION);
    for (uint32_t n = 1; good && n <= ALL; ++n) {
        void* oObject = ObjectOf(Make(n));
        uint32_t id = 0;
        good = IndxAddObjectToTable(&id, oTable, oObject) && id == n;
        ObjReleaseInternal(&oObject);
    }
    for (uint32_t id : DELETED)
        good = good && Delete(oTable, id);
    IndxReleaseTable(&oTable);
    IndxCloseDatabase(&oDatabase);
    return good;
}

} // namespace golden
