// keycursor.h: the cursor of an operation that enters or takes out one key. It stands nowhere and
// nobody else gets to see it, so it lives on the stack and in no list; the trace tells of cursors,
// so while every step is traced it is one like all others.
#pragma once

#include "database/index.h"
#include "database/index/tree/protos.h"

class IndxKeyCursor {
  public:
    explicit IndxKeyCursor(IndxField* pField)
    {
        if (NIM_TRACES(INDX_DETAIL)) {
            IndxGetCursor(&oTraced_, pField);
            pCursor_ = static_cast<IndxCursor*>(oTraced_);
        } else {
            cursor_.oField = pField;
        }
    }
    ~IndxKeyCursor()
    {
        if (oTraced_)
            IndxReleaseCursor(&oTraced_);
        ObjRelease(cursor_.oKey);
    }
    IndxKeyCursor(const IndxKeyCursor&) = delete;
    IndxKeyCursor& operator=(const IndxKeyCursor&) = delete;

    // Null: no memory.
    IndxCursor* get() { return pCursor_; }

  private:
    IndxCursor cursor_ = {};
    IndxCursor* pCursor_ = &cursor_;
    void* oTraced_ = nullptr;
};
