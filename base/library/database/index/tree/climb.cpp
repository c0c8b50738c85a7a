// climb.cpp: the loop behind climb.h.

#include "database/index/tree/climb.h"

#include <algorithm>
#include <cassert>

#include "database/index/tree/node.h"

namespace {

constexpr uint32_t FIRST_FRAMES = 16;
// Steps a level can take: fix the parent up, split it, enter the new node's key, each of them once
// more for every split that is finished below. Keys of unequal lengths chosen to hurt take less
// than four on the average of a climb. Blocks are no measure: a step that splits makes one, so that
// a ring of full nodes would go round until the disk is full.
constexpr uint64_t STEPS_A_LEVEL = 64;

} // namespace

IndxClimb::~IndxClimb()
{
    ObjRelease(pKey_);
    while (frames_ > 0)
        ObjRelease(pFrames_[--frames_].pKey);
    void* pMemory = pFrames_;
    MemFreeInternal(&pMemory);
}

NimBool IndxClimb::Next(IndxStep step, uint8_t* pNode, int32_t position, IndxKeyInfo* pKey)
{
    assert(!next_);
    ObjRelease(pKey_);
    next_ = step;
    pNode_ = pNode;
    position_ = position;
    pKey_ = pKey;
    if (++steps_ <= STEPS_A_LEVEL * (levels_ + 1ull))
        return TRUE;
    IndxReportDamage(pCursor_, NodeId(pNode));
    return FALSE;
}

NimBool IndxClimb::Push(IndxFinish finish, uint8_t* pNode, IndxKeyInfo* pKey)
{
    if (frames_ == capacity_) {
        const uint32_t wanted = capacity_ ? 2 * capacity_ : FIRST_FRAMES;
        void* pMemory =
            wanted <= UINT32_MAX / sizeof(Frame)
                ? MemAllocateFromPool(wanted * static_cast<uint32_t>(sizeof(Frame)), IndxPool())
                : nullptr;
        if (!pMemory) {
            ObjRelease(pKey);
            return FALSE;
        }
        auto* pFrames = static_cast<Frame*>(pMemory);
        std::copy(pFrames_, pFrames_ + frames_, pFrames);
        void* pFormer = pFrames_;
        MemFreeInternal(&pFormer);
        pFrames_ = pFrames;
        capacity_ = wanted;
    }
    pFrames_[frames_++] = {finish, pNode, pKey};
    return TRUE;
}

NimBool IndxClimb::TakeNext()
{
    const IndxStep step = next_;
    next_ = nullptr;
    IndxKeyInfo* pKey = pKey_;
    pKey_ = nullptr;
    const NimBool bResult = step(*this, pNode_, position_, pKey);
    ObjRelease(pKey);
    return bResult;
}

NimBool IndxClimb::TakeFrame(NimBool bResult)
{
    Frame frame = pFrames_[--frames_];
    const NimBool bFrom = frame.finish(*this, frame.pNode, frame.pKey, bResult);
    ObjRelease(frame.pKey);
    return bFrom;
}

NimBool IndxClimb::Run(NimBool bResult)
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
