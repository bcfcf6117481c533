// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/ISubscriber.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace testsupport {

// Subscriber that records every notification (name and a copy of the bytes). For a byte stream
// (a named pipe), Stream() is what arrived, whatever the notifications' boundaries.
class Collector : public shared::ISubscriber {
public:
    struct Block {
        std::string name;
        std::string bytes;
    };

    void onNotify(const std::string& name, const void* data, size_t size) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            blocks_.push_back(Block{name, std::string(static_cast<const char*>(data), size)});
            bytes_ += size;
            changed_.notify_all();
        }
        if (action) {
            action();
        }
    }

    // True when at least `count` blocks arrived within the time-out.
    bool WaitFor(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return blocks_.size() >= count; });
    }
    // True when at least `size` bytes arrived within the time-out.
    bool WaitForBytes(size_t size, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return bytes_ >= size; });
    }
    std::vector<Block> Blocks() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return blocks_;
    }
    size_t Count() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return blocks_.size();
    }
    std::string Stream() const {
        std::string stream;
        for (const Block& block : Blocks()) {
            stream += block.bytes;
        }
        return stream;
    }
    std::set<std::string> Names() const {
        std::set<std::string> names;
        for (const Block& block : Blocks()) {
            names.insert(block.name);
        }
        return names;
    }

    std::function<void()> action;  // run after recording, on the notifying thread

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Block> blocks_;  // guarded by mutex_
    size_t bytes_ = 0;           // guarded by mutex_: their total size
};

}  // namespace testsupport
