// climb.h: working up a tree without recursion.
//
// A change in a leaf may go on in its parent, in the parent's parent, up to a new root, and some
// steps have work left for when the levels above are done. Keys near half a node make trees of many
// dozens of levels, and no constant bounds them, while the host's stack may be 1 MiB: so the way up
// is a loop. A step does its work in one node, pushes a frame for what it has to do afterwards, and
// names the next step; frames run, last in first out, once no step is left, each with the result so
// far.
#pragma once

#include <cstdint>

#include "database/index/ground/shapes.h"

class IndxClimb;

// One step in one node. False fails the climb. `pKey` stays the climb's.
using IndxStep =
    bool (*)(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);

// What a step left to be done. Gets the result so far and returns the result from here on; it may
// name a next step.
using IndxFinish =
    bool (*)(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey, bool bResult);

class IndxClimb {
  public:
    // `levels`: nodes from the root down to the one where the climb starts, both counted, or more:
    // a way up that is longer runs in a ring of parent links.
    IndxClimb(IndxCursor* pCursor, uint32_t levels);
    ~IndxClimb();
    IndxClimb(const IndxClimb&) = delete;
    IndxClimb& operator=(const IndxClimb&) = delete;

    IndxCursor* Cursor() const { return pCursor_; }

    // Goes on with `step` in the parent of the present node, once the present step returns. Takes
    // over the reference on pKey, which may be null. False: damage, reported. The parent lies
    // higher than the tree does, or there have been more steps than a tree of so many levels can
    // ask for.
    [[nodiscard]] bool Next(IndxStep step, uint8_t* pParent, int32_t position, IndxKeyInfo* pKey);

    // Leaves work for afterwards: in the present node, or with `bInParent` in its parent. Takes
    // over the reference on pKey. False: no memory.
    [[nodiscard]] bool
    Push(IndxFinish finish, uint8_t* pNode, IndxKeyInfo* pKey, bool bInParent = false);

    // Runs what has been named and pushed; `bResult` is the first step's result.
    bool Run(bool bResult);

  private:
    struct Frame {
        IndxFinish finish;
        uint8_t* pNode;
        IndxKeyInfo* pKey;
        uint32_t height;
    };
    bool TakeNext();
    bool TakeFrame(bool bResult);
    uint32_t LevelsNow() const;

    IndxCursor* pCursor_;
    uint32_t levels_;       // when the climb began
    int32_t levelsOfIndex_; // as the index had them then: it counts the roots that are put on top
    uint32_t height_ = 1;   // of the present node above the one where the climb began, which is 1
    uint32_t nextHeight_ = 1;
    Frame* pFrames_ = nullptr;
    uint32_t frames_ = 0;
    uint32_t capacity_ = 0;
    uint64_t steps_ = 0;
    IndxStep next_ = nullptr;
    uint8_t* pNode_ = nullptr;
    int32_t position_ = 0;
    IndxKeyInfo* pKey_ = nullptr;
};
