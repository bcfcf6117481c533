// SPDX-License-Identifier: Apache-2.0
// Fuzz target: arbitrary bytes as a recording read by slotctl read/info/replay. The input is put
// in a memfd and read by its /proc path, exactly as a file is. Reading must never crash, read
// outside what it was given (the sanitizer sees that), or allocate without bound (libFuzzer's
// -rss_limit_mb and -malloc_limit_mb); it ends either complete, or with a problem it names at
// an offset inside the file, or with the reader's own error carrying a text.
//
// Sources: this file, tools/slotctl/Mcap.cpp, tools/slotctl/Crc32.cpp.
// Seeds: fuzz/corpus/mcap_reader (recordings written by mcap::Writer: plain, zstd chunks, cut
// short, and the inputs of faults found so far).
#include "FuzzSupport.h"
#include "Mcap.h"

#include <sys/mman.h>
#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

using fuzzsupport::Fail;

namespace {

// The last block and channel read, kept so that their copies are really made.
std::string lastBlock;
std::string lastTopic;

// Writes all of `data` to `fd`.
void WriteAll(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n <= 0) {
            Fail("cannot write the input to a memfd");
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

void Check(const mcap::ReadResult& result, std::uint64_t delivered, std::size_t size) {
    if (result.complete != result.problem.empty()) {
        Fail("complete is " + std::to_string(result.complete) + " with problem '" + result.problem +
             "'");
    }
    if (result.complete && result.cutShort) {
        Fail("a file both complete and cut short");
    }
    if (!result.problem.empty() && result.problemOffset > size) {
        Fail("problem '" + result.problem + "' at " + std::to_string(result.problemOffset) +
             ", past the end of " + std::to_string(size) + " bytes");
    }
    if (result.messages != delivered) {
        Fail(std::to_string(result.messages) + " messages counted, " + std::to_string(delivered) +
             " delivered");
    }
    std::set<std::uint16_t> ids;
    for (const mcap::Channel& channel : result.channels) {
        if (!ids.insert(channel.id).second) {
            Fail("channel " + std::to_string(channel.id) + " listed twice");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int fd = ::memfd_create("mcap_reader", MFD_CLOEXEC);
    if (fd < 0) {
        Fail("cannot make a memfd");
    }
    WriteAll(fd, data, size);
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    std::uint64_t delivered = 0;
    try {
        const mcap::ReadResult result =
            mcap::Read(path, [&](const mcap::Message& message, const mcap::Channel& channel) {
                if (message.size != 0 && message.data == nullptr) {
                    Fail("a message of " + std::to_string(message.size) + " bytes without data");
                }
                // read copies each block: every byte of it is touched, where the sanitizer sees.
                lastBlock.assign(message.data, message.size);
                lastTopic = channel.topic;
                ++delivered;
                return true;
            });
        Check(result, delivered, size);
    } catch (const mcap::Error& e) {
        if (std::string(e.what()).empty()) {
            Fail("an mcap::Error without a text");
        }
    }
    ::close(fd);
    return 0;
}
