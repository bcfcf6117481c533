// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/shared_array.hpp>

#include <stdexcept>

namespace shared {

// A reference-counted byte buffer with its size. Copies share the bytes; the last copy frees
// them. A buffer made from a size is not cleared. The size may only be lowered (after a read
// that filled less than the whole buffer), so data() always has at least size() bytes.
class SizedArray {
public:
    SizedArray() : size_(0) {}
    explicit SizedArray(unsigned int size) : data_(size ? new char[size] : nullptr), size_(size) {}
    SizedArray(const boost::shared_array<char>& data, unsigned int size)
        : data_(data), size_(size) {}

    char* data() const { return data_.get(); }
    unsigned int size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const boost::shared_array<char>& array() const { return data_; }

    void setSize(unsigned int size) {
        if (size > size_) {
            throw std::length_error("SizedArray::setSize cannot grow the buffer");
        }
        size_ = size;
    }

private:
    boost::shared_array<char> data_;
    unsigned int size_;
};

}  // namespace shared
