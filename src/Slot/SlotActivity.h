// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <string>

// A slot's header seen from outside, for watching its traffic without taking part in it.
//
// Every write broadcasts the header's write condition, whose sequence word then advances by one;
// two samples therefore tell how many writes happened between them (modulo 2^32), with no
// reader and without taking a block from anybody. A sample reads the header segment "<name>"
// with plain reads, like SlotSurvey, of its structure only (the output buffer's bytes only when
// asked for): it takes no lock, never waits, writes nothing, and checks every offset against the
// real size of the object.
struct SlotActivitySample {
    bool valid = false;   // the header was read and its write condition found
    std::string problem;  // why not, when !valid
    std::uint32_t writeSequence = 0;
    boost::posix_time::ptime lastWrite;  // not_a_date_time: not written since last opened
    // The output buffer: the copy of the last block taken by a reader of this slot.
    std::uint32_t outputDataSize = 0;
    bool hasOutput = false;  // the output buffer was found and its data size fits it
    std::string output;      // its bytes, when asked for and hasOutput
};

class SLOT_EXPORT SlotActivity {
public:
    // One look at the header of slot `name`; with `withOutput` the output buffer's bytes too.
    // Never throws for what it finds.
    static SlotActivitySample Sample(const std::string& name, bool withOutput = false);

    // Writes between two samples of one slot (the sequence word wraps at 2^32).
    static std::uint32_t WritesBetween(const SlotActivitySample& before,
                                       const SlotActivitySample& after) {
        return after.writeSequence - before.writeSequence;
    }
};
