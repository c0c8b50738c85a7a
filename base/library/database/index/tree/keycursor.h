// keycursor.h: the cursor of an operation that enters or takes out one key. It stands nowhere and
// nobody else gets to see it, so it lives on the stack and in no list.
#pragma once

#include "database/index/ground/shapes.h"

class IndxKeyCursor {
  public:
    explicit IndxKeyCursor(IndxField* pField) { cursor_.oField = pField; }
    ~IndxKeyCursor() { ObjRelease(cursor_.oKey); }
    IndxKeyCursor(const IndxKeyCursor&) = delete;
    IndxKeyCursor& operator=(const IndxKeyCursor&) = delete;

    IndxCursor* get() { return &cursor_; }

  private:
    IndxCursor cursor_ = {};
};
