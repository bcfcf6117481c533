// SPDX-License-Identifier: Apache-2.0
#include <IoUtils/AccumulationBuffer.h>

#include <algorithm>
#include <exception>

namespace IoUtils {

AccumulationBuffer::AccumulationBuffer(unsigned int maxSize, unsigned int reserve)
    : maxSize_(maxSize) {
    pending_.reserve(std::min(reserve, maxSize));
}

AccumulationBuffer::~AccumulationBuffer() {}

void AccumulationBuffer::onNotify(const std::string& name, const void* data, size_t size) {
    boost::mutex::scoped_lock lock(mutex_);
    lastName_ = name;
    if (maxSize_ == 0) {
        notify(name, data, static_cast<unsigned int>(size));
        return;
    }
    const char* bytes = static_cast<const char*>(data);
    std::exception_ptr firstError;
    // A throwing subscriber neither loses the rest of the block nor gets a record twice: the
    // loop goes on, and a buffered record is cleared whatever its notification did.
    while (size != 0) {
        const char* record = nullptr;
        if (pending_.empty() && size >= maxSize_) {
            record = bytes;
            bytes += maxSize_;
            size -= maxSize_;
        } else {
            const size_t take = std::min<size_t>(size, maxSize_ - pending_.size());
            pending_.insert(pending_.end(), bytes, bytes + take);
            bytes += take;
            size -= take;
            if (pending_.size() < maxSize_) {
                pendingSize_.store(pending_.size(), std::memory_order_relaxed);
                break;
            }
            pendingSize_.store(0, std::memory_order_relaxed);  // a whole record: on its way out
            record = pending_.data();
        }
        try {
            notify(name, record, maxSize_);
        } catch (...) {
            if (!firstError) {
                firstError = std::current_exception();
            }
        }
        if (record == pending_.data()) {
            pending_.clear();
        }
    }
    if (firstError) {
        std::rethrow_exception(firstError);
    }
}

void AccumulationBuffer::Flush() {
    boost::mutex::scoped_lock lock(mutex_);
    if (pending_.empty()) {
        return;
    }
    std::vector<char> record;
    record.swap(pending_);
    pendingSize_.store(0, std::memory_order_relaxed);
    pending_.reserve(record.capacity());
    notify(lastName_, record.data(), static_cast<unsigned int>(record.size()));
}

size_t AccumulationBuffer::GetPendingSize() const {
    return pendingSize_.load(std::memory_order_relaxed);
}

}  // namespace IoUtils
