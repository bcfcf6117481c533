// SPDX-License-Identifier: Apache-2.0
#include <IoUtils/AccumulationBuffer.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Records every notification separately.
class Recorder : public shared::ISubscriber {
public:
    void onNotify(const std::string& name, const void* data, size_t size) override {
        names.push_back(name);
        records.push_back(std::string(static_cast<const char*>(data), size));
        if (asked != nullptr) {
            pendingSeen.push_back(asked->GetPendingSize());
        }
    }
    std::string Joined() const {
        std::string all;
        for (const std::string& r : records) {
            all += r;
        }
        return all;
    }
    std::vector<std::string> names;
    std::vector<std::string> records;
    // When set, asked for its pending size from inside every call.
    const IoUtils::AccumulationBuffer* asked = nullptr;
    std::vector<size_t> pendingSeen;
};

// Throws on every second notification.
class Thrower : public shared::ISubscriber {
public:
    void onNotify(const std::string&, const void*, size_t) override {
        if (++calls % 2 == 0) {
            throw std::runtime_error("subscriber failed");
        }
    }
    int calls = 0;
};

std::string Bytes(size_t size, unsigned int seed) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 131u + seed * 7u + i / 256u) & 0xff);
    }
    return bytes;
}

// Odd block sizes around and far from the record size, empty ones included.
std::vector<size_t> BlockSizes(unsigned int m) {
    std::vector<size_t> sizes = {1,         0, 3, m - 1,     m,  m + 1, 2 * m,
                                 2 * m + 5, 7, 0, 5 * m - 2, 13, 1,     1};
    unsigned int x = m;
    for (int i = 0; i < 40; ++i) {
        x = x * 1103515245u + 12345u;
        sizes.push_back((x >> 16) % (3u * m + 2u));
    }
    return sizes;
}

TEST(AccumulationBuffer, OddSizedBlocksComeOutAsWholeRecordsByteIdenticalAndInOrder) {
    for (unsigned int maxSize : {1u, 2u, 7u, 64u, 4096u}) {
        SCOPED_TRACE(maxSize);
        IoUtils::AccumulationBuffer buffer(maxSize, 4096);
        Recorder out;
        out.asked = &buffer;  // a subscriber may ask, from inside its call
        buffer.subscribe(&out);
        std::string in;
        unsigned int seed = 0;
        for (size_t size : BlockSizes(maxSize)) {
            const std::string block = Bytes(size, ++seed);
            in += block;
            buffer.onNotify(seed % 2 ? "odd" : "even", block.data(), block.size());
            ASSERT_LT(buffer.GetPendingSize(), maxSize);
            ASSERT_EQ(in.size() - in.size() % maxSize, out.Joined().size());
        }
        for (const std::string& record : out.records) {
            ASSERT_EQ(maxSize, record.size());
        }
        // A record on its way out waits for nothing: what remains of a block comes after it.
        EXPECT_EQ(std::vector<size_t>(out.records.size(), 0u), out.pendingSeen);
        const size_t whole = out.records.size();
        buffer.Flush();
        buffer.Flush();  // nothing left the second time
        EXPECT_EQ(whole + (in.size() % maxSize ? 1u : 0u), out.records.size());
        EXPECT_EQ(0u, buffer.GetPendingSize());
        EXPECT_EQ(in, out.Joined());
    }
}

TEST(AccumulationBuffer, ARecordCarriesTheNameOfTheBlockThatCompletedIt) {
    IoUtils::AccumulationBuffer buffer(4, 0);
    Recorder out;
    buffer.subscribe(&out);
    buffer.onNotify("a", "xyz", 3);
    buffer.onNotify("b", "1234567", 7);  // completes "xyz1", passes "2345" on, keeps "67"
    buffer.onNotify("c", "9", 1);
    buffer.Flush();
    EXPECT_EQ((std::vector<std::string>{"xyz1", "2345", "679"}), out.records);
    EXPECT_EQ((std::vector<std::string>{"b", "b", "c"}), out.names);
}

TEST(AccumulationBuffer, SizeZeroPassesEveryBlockOnAsItCame) {
    IoUtils::AccumulationBuffer buffer(0, 4096);
    Recorder out;
    buffer.subscribe(&out);
    const std::vector<std::string> blocks = {"abc", "", std::string(10000, 'q'), "z"};
    for (const std::string& block : blocks) {
        buffer.onNotify("p", block.data(), block.size());
    }
    buffer.Flush();
    EXPECT_EQ(blocks, out.records);
}

TEST(AccumulationBuffer, AThrowingSubscriberLosesNoBytesAndTheErrorComesOut) {
    IoUtils::AccumulationBuffer buffer(5, 16);
    Recorder out;
    Thrower thrower;
    buffer.subscribe(&out);
    buffer.subscribe(&thrower);
    std::string in;
    for (unsigned int i = 0; i < 20; ++i) {
        const std::string block = Bytes(3 + i % 11, i);
        in += block;
        try {
            buffer.onNotify("t", block.data(), block.size());
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ("subscriber failed", e.what());
        }
    }
    buffer.Flush();
    EXPECT_EQ(in, out.Joined());
    EXPECT_GT(thrower.calls, 2);

    buffer.unsubscribeAll();
    buffer.onNotify("t", "12345", 5);
    EXPECT_EQ(in, out.Joined());
}

}  // namespace
