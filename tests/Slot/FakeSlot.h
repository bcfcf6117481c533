// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/BoostInterprocess/BaseSlotReader.h>
#include <Slot/ISlot.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <string>

namespace testsupport {

// In-process ISlot for the reader and writer machinery: counts lock/notify calls (and names
// asked for under the lock), holds blocks in a deque, and can be told to throw from
// ReadData/WriteData.
class FakeSlot : public ISlot {
public:
    class Lock : public shared::ILockable {
    public:
        void lock() override {
            mutex.lock();
            ++locks;
            held = true;
        }
        bool try_lock() override { return mutex.try_lock(); }
        bool timed_lock(const boost::posix_time::ptime&) override { return mutex.try_lock(); }
        void unlock() override {
            held = false;
            mutex.unlock();
        }
        boost::mutex mutex;
        std::atomic<int> locks{0};
        std::atomic<bool> held{false};
    };

    class Event : public shared::ISyncEvent {
    public:
        bool Wait(const boost::posix_time::time_duration& timeout) override {
            boost::mutex::scoped_lock lock(mutex);
            const unsigned long seen = generation;
            bool woken = cv.timed_wait(lock, timeout, [&] { return generation != seen; });
            boost::this_thread::interruption_point();
            return woken;
        }
        void Notify() override {
            boost::mutex::scoped_lock lock(mutex);
            ++generation;
            ++notifies;
            cv.notify_all();
        }
        boost::mutex mutex;
        boost::condition_variable cv;
        unsigned long generation = 0;
        std::atomic<int> notifies{0};
    };

    explicit FakeSlot(const std::string& name = "fake", size_t maxSize = 64)
        : name_(name), maxSize_(maxSize) {}

    size_t ReadData(void* buffer, size_t size) override {
        boost::mutex::scoped_lock lock(dataMutex_);
        ++reads;
        if (readThrows) {
            readThrows();
        }
        if (blocks_.empty()) {
            return 0;
        }
        const std::string block = blocks_.front();
        blocks_.pop_front();
        const size_t n = std::min(size, block.size());
        std::copy(block.data(), block.data() + n, static_cast<char*>(buffer));
        return n;
    }
    void WriteData(const void* data, size_t size) override {
        lockHeldAtWrite = lock_.held.load();
        if (writeThrows) {
            writeThrows();
        }
        boost::mutex::scoped_lock lock(dataMutex_);
        blocks_.push_back(std::string(static_cast<const char*>(data), size));
        lastWrite_ = boost::posix_time::microsec_clock::universal_time();
    }
    std::string GetName() const override {
        namesWhileLocked += lock_.held ? 1 : 0;
        return name_;
    }
    size_t GetMaxDataSize() const override { return maxSize_; }
    shared::ILockable* GetLockable() override { return &lock_; }
    shared::ISyncEvent* GetOnWriteCondition() override { return &event_; }
    boost::posix_time::ptime GetLastWriteTime() const override {
        boost::mutex::scoped_lock lock(dataMutex_);
        return lastWrite_;
    }
    size_t GetBufferLength() const override {
        boost::mutex::scoped_lock lock(dataMutex_);
        return blocks_.size();
    }

    Lock& lock() { return lock_; }
    Event& event() { return event_; }
    std::deque<std::string> Blocks() const {
        boost::mutex::scoped_lock lock(dataMutex_);
        return blocks_;
    }

    std::atomic<int> reads{0};
    std::atomic<bool> lockHeldAtWrite{false};
    mutable std::atomic<int> namesWhileLocked{0};  // GetName calls while the lock was held
    std::function<void()> readThrows;              // set before the reader starts
    std::function<void()> writeThrows;             // set before writing

private:
    std::string name_;
    size_t maxSize_;
    Lock lock_;
    Event event_;
    mutable boost::mutex dataMutex_;
    std::deque<std::string> blocks_;  // guarded by dataMutex_
    boost::posix_time::ptime lastWrite_{boost::posix_time::not_a_date_time};
};

// Reads a fake slot and delivers every block; stops its thread as the concrete readers do.
class EveryBlockReader : public BaseSlotReader {
public:
    using BaseSlotReader::BaseSlotReader;
    ~EveryBlockReader() override { StopThread(); }
    bool DataInSlotIsActual() override { return slot_->GetBufferLength() != 0; }
};

}  // namespace testsupport
