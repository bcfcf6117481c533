// SPDX-License-Identifier: Apache-2.0
#include "SlotActivity.h"

#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotSurvey.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <vector>

namespace {

// Larger objects are no slot headers worth reading at every sample.
const std::uint64_t MaxHeaderBytes = std::uint64_t(256) << 20;

bool ReadHeaderBytes(const std::string& name, std::vector<unsigned char>& bytes,
                     std::string& problem) {
    if (Slot::SlotNameProblem(name)) {
        problem = "not a slot name";
        return false;
    }
    const std::string path = Slot::ShmPath(Slot::HeaderObjectName(name));
    // Non-blocking and without following links, as the survey reads.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        problem = errno == ENOENT ? "no header segment" : std::strerror(errno);
        return false;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<std::uint64_t>(st.st_size) > MaxHeaderBytes) {
        ::close(fd);
        problem = "not a readable header segment";
        return false;
    }
    bytes.resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n =
            ::pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;  // shrunk meanwhile
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    bytes.resize(done);
    return true;
}

}  // namespace

SlotActivitySample SlotActivity::Sample(const std::string& name, bool withOutput) {
    SlotActivitySample sample;
    std::vector<unsigned char> bytes;
    if (!ReadHeaderBytes(name, bytes, sample.problem)) {
        return sample;
    }
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(bytes.data(), bytes.size());
    const SlotImage::Region& condition = image.objects[SlotImage::WriteCondition].value;
    if (!condition.present || condition.size < sizeof(std::uint32_t)) {
        sample.problem = image.problem.empty() ? "no write condition in the header" : image.problem;
        return sample;
    }
    // The sequence word is the condition's first field.
    std::memcpy(&sample.writeSequence, bytes.data() + condition.offset, sizeof(std::uint32_t));
    sample.valid = true;
    sample.lastWrite = image.lastWrite;
    sample.outputDataSize = image.outputDataSize;
    const SlotImage::Region& buffer = image.outputBuffer;
    sample.hasOutput = image.objects[SlotImage::OutputDataSize].value.present && buffer.present &&
                       image.outputDataSize <= buffer.size;
    if (withOutput && sample.hasOutput) {
        sample.output.assign(reinterpret_cast<const char*>(bytes.data() + buffer.offset),
                             image.outputDataSize);
    }
    return sample;
}
