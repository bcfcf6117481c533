// SPDX-License-Identifier: Apache-2.0
// Fuzz target: arbitrary bytes as the contents of a slot's header segment and of its queue.
// The parsers must never read outside the bytes (the sanitizer catches any such read, the
// input being an exactly sized buffer), must report only regions inside them, and must give
// the same answer for the same bytes at a page-aligned address, as a real mapping has.
//
// Sources: this file, src/Slot/BoostInterprocess/SlotImage.cpp, src/shared/MutexOwner.cpp.
// Seeds: fuzz/corpus/slot_image (header segments and queues of real slots).
#include <Slot/BoostInterprocess/SlotImage.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void CheckInside(const SlotImage::Region& region, std::size_t size) {
    if (region.present && (region.offset > size || region.size > size - region.offset)) {
        __builtin_trap();
    }
}

void CheckHeader(const SlotImage::HeaderImage& h, std::size_t size) {
    CheckInside(h.allocatorMutex, size);
    CheckInside(h.indexMutex, size);
    CheckInside(h.headerMutex, size);
    CheckInside(h.outputBuffer, size);
    for (const SlotImage::NamedObject& object : h.objects) {
        CheckInside(object.value, size);
    }
    if (h.verdict == SlotImage::Verdict::Valid && (!h.Complete() || !h.problem.empty())) {
        __builtin_trap();
    }
}

void CheckQueue(const SlotImage::QueueImage& q, std::size_t size) {
    CheckInside(q.mutex, size);
    CheckInside(q.receiveCondition, size);
    CheckInside(q.sendCondition, size);
    CheckInside(q.index, size);
    CheckInside(q.messages, size);
    if (q.verdict == SlotImage::Verdict::Valid &&
        (!q.countsValid || !q.indexValid || !q.messagesValid || q.waiting > q.capacity ||
         q.requiredSize != size)) {
        __builtin_trap();
    }
}

bool SameHeader(const SlotImage::HeaderImage& a, const SlotImage::HeaderImage& b) {
    return a.verdict == b.verdict && a.problem == b.problem && a.creation == b.creation &&
           a.outputBuffer.present == b.outputBuffer.present &&
           a.outputBuffer.offset == b.outputBuffer.offset && a.Complete() == b.Complete();
}

bool SameQueue(const SlotImage::QueueImage& a, const SlotImage::QueueImage& b) {
    return a.verdict == b.verdict && a.problem == b.problem && a.waiting == b.waiting &&
           a.capacity == b.capacity && a.indexValid == b.indexValid;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const SlotImage::HeaderImage header = SlotImage::ParseHeader(data, size);
    const SlotImage::QueueImage queue = SlotImage::ParseQueue(data, size);
    CheckHeader(header, size);
    CheckQueue(queue, size);

    // The same bytes where a mapping would put them: at the start of a page.
    const std::size_t page = 4096;
    void* aligned = std::aligned_alloc(page, (size / page + 1) * page);
    if (aligned == nullptr) {
        return 0;
    }
    if (size != 0) {
        std::memcpy(aligned, data, size);
    }
    const SlotImage::HeaderImage alignedHeader = SlotImage::ParseHeader(aligned, size);
    const SlotImage::QueueImage alignedQueue = SlotImage::ParseQueue(aligned, size);
    std::free(aligned);
    if (!SameHeader(header, alignedHeader) || !SameQueue(queue, alignedQueue)) {
        __builtin_trap();
    }
    return 0;
}
