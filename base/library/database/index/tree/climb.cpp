// climb.cpp: the loop behind climb.h.

#include "database/index/tree/climb.h"

#include <algorithm>
#include <cassert>

#include "database/index/ground/damage.h"
#include "database/index/ground/runtime.h"
#include "database/index/tree/node.h"

namespace {

constexpr uint32_t FIRST_FRAMES = 16;

// A step goes one level up, and leaves at most one frame, which may send another step up from its
// level: the steps of a climb grow with the square of the levels. Keys near half a node, chosen to
// hurt, take about one step for two pairs of levels. What takes many times as many goes round in a
// damaged tree, and since a step that splits makes a block it would go round until the disk is
// full.
constexpr uint64_t STEPS_A_PAIR_OF_LEVELS = 16;
constexpr uint64_t LEVELS_AT_LEAST = 8;

} // namespace

IndxClimb::IndxClimb(IndxCursor* pCursor, uint32_t levels)
    : pCursor_(pCursor), levels_(levels), levelsOfIndex_(pCursor->oField->levels)
{
}

IndxClimb::~IndxClimb()
{
    ObjRelease(pKey_);
    while (frames_ > 0)
        ObjRelease(pFrames_[--frames_].pKey);
    void* pMemory = pFrames_;
    MemFreeInternal(&pMemory);
}

// The roots that were put on top since the climb began are levels, too.
uint32_t IndxClimb::LevelsNow() const
{
    return levels_ + static_cast<uint32_t>(pCursor_->oField->levels - levelsOfIndex_);
}

bool IndxClimb::Next(IndxStep step, uint8_t* pParent, int32_t position, IndxKeyInfo* pKey)
{
    assert(!next_);
    ObjRelease(pKey_);
    next_ = step;
    pNode_ = pParent;
    position_ = position;
    pKey_ = pKey;
    nextHeight_ = height_ + 1;
    const uint64_t levels = LEVELS_AT_LEAST + LevelsNow();
    if (nextHeight_ <= LevelsNow() && ++steps_ <= STEPS_A_PAIR_OF_LEVELS * levels * levels)
        return true;
    IndxReportDamage(pCursor_, NodeId(pParent));
    return false;
}

bool IndxClimb::Push(IndxFinish finish, uint8_t* pNode, IndxKeyInfo* pKey, bool bInParent)
{
    if (frames_ == capacity_) {
        const uint32_t wanted = capacity_ ? 2 * capacity_ : FIRST_FRAMES;
        void* pMemory =
            wanted <= UINT32_MAX / sizeof(Frame)
                ? MemAllocateFromPool(wanted * static_cast<uint32_t>(sizeof(Frame)), IndxPool())
                : nullptr;
        if (!pMemory) {
            ObjRelease(pKey);
            return false;
        }
        auto* pFrames = static_cast<Frame*>(pMemory);
        std::copy(pFrames_, pFrames_ + frames_, pFrames);
        void* pFormer = pFrames_;
        MemFreeInternal(&pFormer);
        pFrames_ = pFrames;
        capacity_ = wanted;
    }
    pFrames_[frames_++] = {finish, pNode, pKey, bInParent ? height_ + 1 : height_};
    return true;
}

bool IndxClimb::TakeNext()
{
    const IndxStep step = next_;
    next_ = nullptr;
    height_ = nextHeight_;
    IndxKeyInfo* pKey = pKey_;
    pKey_ = nullptr;
    const bool bResult = step(*this, pNode_, position_, pKey);
    ObjRelease(pKey);
    return bResult;
}

bool IndxClimb::TakeFrame(bool bResult)
{
    Frame frame = pFrames_[--frames_];
    height_ = frame.height;
    const bool bFrom = frame.finish(*this, frame.pNode, frame.pKey, bResult);
    ObjRelease(frame.pKey);
    return bFrom;
}

bool IndxClimb::Run(bool bResult)
{
    for (;;) {
        if (!bResult)
            next_ = nullptr;
        if (next_)
            bResult = TakeNext();
        else if (frames_ > 0)
            bResult = TakeFrame(bResult);
        else
            return bResult;
    }
}
