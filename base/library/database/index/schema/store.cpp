// store.cpp: the end of an operation: the table's description goes into the user data of its block
// file, and with the changed blocks to the disk.
//
// Most operations change one number of the description, the highest id, or none. The form has every
// number in a place of its own, of a fixed width: so it is made anew only when more has changed.

#include "database/index/schema/store.h"

#include "database/block/blockstore.h"
#include "database/index.h"
#include "database/index/ground/runtime.h"
#include "database/logids.h"

namespace {

// The description as a whole, in the room of the user data.
struct Form {
    uint8_t bytes[BLCK_USER_DATA_SIZE];
    uint32_t size;
    uint32_t idPlace;
};

bool MakeForm(Form* pForm, const IndxTable* pTable)
{
    return ObjSerializeInto(
        pTable, pForm->bytes, sizeof pForm->bytes, &pForm->size, &pTable->highestId,
        &pForm->idPlace);
}

// Serialises the table into its block file's user data: what is there stays when the form cannot be
// made or does not fit. The room is kept to all the same: the form does not grow with the values it
// holds, but a write behind the control block could not be mended. False: nothing has been stored.
bool StoreDescription(IndxTable* pTable)
{
    auto* pStored = static_cast<uint8_t*>(BlckUserData(pTable->oBlck));
    if (!pStored)
        return false;
    const bool bOnlyId = pTable->bOnlyIdChanged && pTable->idPlace != 0;
    pTable->bOnlyIdChanged = FALSE;
    if (bOnlyId) {
        BlckUserDataWillChange(pTable->oBlck, pTable->idPlace + sizeof pTable->highestId);
        return ObjSerializedPutNumber(
                   pStored, BLCK_USER_DATA_SIZE, pTable->idPlace, pTable->highestId) != 0;
    }
    Form form;
    pTable->idPlace = 0;
    if (!MakeForm(&form, pTable))
        return false;
    BlckUserDataWillChange(pTable->oBlck, form.size);
    MemCopy(pStored, form.bytes, form.size);
    pTable->idPlace = form.idPlace;
    return true;
}

NimBool CommitField(void*, void* oField)
{
    auto* pField = static_cast<IndxField*>(oField);
    pField->committedRoots = pField->roots;
    pField->committedLevels = pField->levels;
    return TRUE;
}

NimBool RestoreField(void*, void* oField)
{
    auto* pField = static_cast<IndxField*>(oField);
    pField->roots = pField->committedRoots;
    pField->levels = pField->committedLevels;
    return TRUE;
}

} // namespace

void IndxCommitRoots(IndxTable* pTable)
{
    ListWalk(pTable->oFields, CommitField, nullptr);
}

void IndxBackout(IndxTable* pTable)
{
    BlckBackoutAll(pTable->oBlck);
    ListWalk(pTable->oFields, RestoreField, nullptr);
}

NimBool IndxUpdateTable(void* oTable)
{
    INDX_TRACE(INDX_DETAIL, "IndxUpdateTable(%p)", oTable);
    IndxTable* pTable = IndxAsTable(oTable);
    if (!pTable)
        return FALSE;
    NimBool bStored = TRUE;
    if (pTable->bChanged) {
        // Cleared first, so that the description on disk says unchanged, and left clear on failure.
        pTable->bChanged = FALSE;
        if (!StoreDescription(pTable)) {
            INDX_TRACE_ERROR(INDX_ALWAYS, "Failed to update table");
            LogMessageAs(LOG_UPDATE_TABLE, "Failed to update table '%s'", pTable->name);
            bStored = FALSE;
        }
    }
    BlckReleaseAll(pTable->oBlck);
    IndxCommitRoots(pTable);
    return bStored;
}
