// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <IoUtils/Export.h>

#include <shared/ISubscriber.h>
#include <shared/Notifier.h>

#include <boost/thread/mutex.hpp>

#include <atomic>
#include <string>
#include <vector>

namespace IoUtils {

// Re-assembles a byte stream that arrives in blocks of any size into records of exactly
// `maxSize` bytes. It is a subscriber (the blocks come in through onNotify) and a notifier
// (subscribers receive the records).
//
// - Each record is passed on as soon as its last byte has come in, under the name of the
//   notification that completed it. A block that holds several whole records gives several
//   notifications, passed on straight from the block without copying.
// - The remainder, fewer than `maxSize` bytes, waits in the internal buffer for the next block;
//   Flush() passes it on as a short record. So the buffer never holds more than `maxSize`
//   bytes, and the bytes come out exactly as they went in, none dropped, none reordered.
// - `maxSize` 0 passes every block on as it comes (empty blocks included).
// - `reserve` is the initial capacity of the internal buffer (at most `maxSize` is ever used).
//
// Subscriber exceptions: when a subscriber throws, the bytes of the block are still
// assembled and passed on to the end, then the first exception is thrown out of onNotify.
//
// Concurrency: onNotify and Flush may be called from any thread; a mutex serialises them and
// is held while the subscribers run, so records leave in the order their bytes came in. A
// subscriber must therefore not feed this buffer from inside its onNotify.
class IOUTILS_EXPORT AccumulationBuffer : public shared::Notifier, public shared::ISubscriber {
public:
    AccumulationBuffer(unsigned int maxSize, unsigned int reserve);
    ~AccumulationBuffer() override;

    void onNotify(const std::string& name, const void* data, size_t size) override;

    // Passes the waiting remainder on, if any.
    void Flush();

    unsigned int GetMaxSize() const { return maxSize_; }
    // Number of bytes waiting for the rest of their record. Takes no lock: a subscriber may ask
    // from inside its onNotify.
    size_t GetPendingSize() const;

private:
    const unsigned int maxSize_;
    mutable boost::mutex mutex_;
    std::vector<char> pending_;           // guarded by mutex_; always fewer than maxSize_ bytes
    std::string lastName_;                // guarded by mutex_; name of the latest block
    std::atomic<size_t> pendingSize_{0};  // written under mutex_: pending_'s bytes still waiting
};

}  // namespace IoUtils
