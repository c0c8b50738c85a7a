// climb.h: working up a tree without recursion.
//
// A change in a leaf may go on in its parent, in the parent's parent, up to a new root, and some
// steps have work left for when the levels above are done. Keys near half a node make trees of many
// dozens of levels, and no constant bounds them, while the host's stack may be 1 MiB: so the way up
// is a loop. A step does its work in one node, pushes a frame for what it has to do afterwards, and
// names the next step; frames run, last in first out, once no step is left, each with the result so
// far.
#pragma once

#include "database/index/tree/protos.h"

class IndxClimb;

// One step in one node. FALSE fails the climb. `pKey` stays the climb's.
using IndxStep =
    NimBool (*)(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);

// What a step left to be done. Gets the result so far and returns the result from here on; it may
// name a next step.
using IndxFinish =
    NimBool (*)(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey, NimBool bResult);

class IndxClimb {
  public:
    // `levels`: nodes from the root down to the one where the climb starts, or more; what they are
    // known to be, since a climb that takes many times as many steps runs in a ring.
    IndxClimb(IndxCursor* pCursor, uint32_t levels) : pCursor_(pCursor), levels_(levels) {}
    ~IndxClimb();
    IndxClimb(const IndxClimb&) = delete;
    IndxClimb& operator=(const IndxClimb&) = delete;

    IndxCursor* Cursor() const { return pCursor_; }

    // Goes on with `step` once the present one returns. Takes over the reference on pKey, which
    // may be null. FALSE when the climb has taken more steps than its levels can account for: the
    // parent links run in a ring.
    NimBool Next(IndxStep step, uint8_t* pNode, int32_t position, IndxKeyInfo* pKey);

    // Leaves work for afterwards. Takes over the reference on pKey. FALSE: no memory.
    NimBool Push(IndxFinish finish, uint8_t* pNode, IndxKeyInfo* pKey);

    // Runs what has been named and pushed; `bResult` is the first step's result.
    NimBool Run(NimBool bResult);

  private:
    struct Frame {
        IndxFinish finish;
        uint8_t* pNode;
        IndxKeyInfo* pKey;
    };
    NimBool TakeNext();
    NimBool TakeFrame(NimBool bResult);

    IndxCursor* pCursor_;
    uint32_t levels_;
    Frame* pFrames_ = nullptr;
    uint32_t frames_ = 0;
    uint32_t capacity_ = 0;
    uint32_t steps_ = 0;
    IndxStep next_ = nullptr;
    uint8_t* pNode_ = nullptr;
    int32_t position_ = 0;
    IndxKeyInfo* pKey_ = nullptr;
};

// ---- the steps that insertion and deletion share (insert.cpp) ----
NimBool
IndxInsertKeyIntoNode(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);
NimBool IndxAddKeyIntoExistingNode(
    IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);
NimBool IndxSplitLeft(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey);
NimBool IndxSplitRight(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);
NimBool IndxFixupParent(IndxClimb& climb, int32_t position, uint8_t* pNode);
// Takes the entry of a node out of its parent and enters the node's present lowest key instead.
NimBool IndxRekeyParent(IndxClimb& climb, uint8_t* pNode);
