// SPDX-License-Identifier: Apache-2.0
#include "SlotActivity.h"

#include <Slot/BoostInterprocess/SlotImage.h>
#include <Slot/SlotNames.h>
#include <Slot/SlotObjectFile.h>

#include <cerrno>
#include <cstring>

SlotActivitySample SlotActivity::Sample(const std::string& name, bool withOutput) {
    SlotActivitySample sample;
    if (Slot::SlotNameProblem(name)) {
        sample.problem = "not a slot name";
        return sample;
    }
    // Only the segment's structure and the words below are read, not the output buffer (up to
    // the slot's max size) unless its bytes are asked for.
    Slot::SlotObjectFile file;
    if (const int error = file.Open(Slot::ShmPath(Slot::HeaderObjectName(name)))) {
        sample.problem = error == ENOENT ? "no header segment" : std::strerror(error);
        return sample;
    }
    if (!file.IsRegularFile()) {
        sample.problem = "not a readable header segment";
        return sample;
    }
    const SlotImage::HeaderImage image = SlotImage::ParseHeader(file);
    const SlotImage::Region& condition = image.objects[SlotImage::WriteCondition].value;
    if (!condition.present || condition.size < sizeof(std::uint32_t)) {
        sample.problem = image.problem.empty() ? "no write condition in the header" : image.problem;
        return sample;
    }
    // The sequence word is the condition's first field.
    if (!file.ReadAt(condition.offset, &sample.writeSequence, sizeof(std::uint32_t))) {
        sample.writeSequence = 0;
        sample.problem = "not a readable header segment";
        return sample;
    }
    sample.valid = true;
    sample.lastWrite = image.lastWrite;
    sample.outputDataSize = image.outputDataSize;
    const SlotImage::Region& buffer = image.outputBuffer;
    sample.hasOutput = image.objects[SlotImage::OutputDataSize].value.present && buffer.present &&
                       image.outputDataSize <= buffer.size;
    if (withOutput && sample.hasOutput) {
        sample.output.resize(image.outputDataSize);
        if (!file.ReadAt(buffer.offset, &sample.output[0], sample.output.size())) {
            sample.output.clear();
            sample.hasOutput = false;  // the segment shrank meanwhile
        }
    }
    return sample;
}
