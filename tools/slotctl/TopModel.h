// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/SlotActivity.h>

#include <sys/types.h>
#include <cstdint>
#include <string>
#include <vector>

namespace slotctl {

// One slot or pool as one look at the machine found it (everything top shows, nothing drawn
// yet). A pool's waiting are its blocks in use (waiting, held or loaned) of its block count.
struct TopObservation {
    std::string name;   // as the system holds it: not escaped
    std::string kind;   // as ls words it; empty when unknown
    std::string state;  // as ls words it
    bool queueKnown = false;
    std::uint64_t waiting = 0;
    std::uint64_t capacity = 0;
    bool reliable = false;  // or a queue pool: one reader
    pid_t readerPid = 0;    // the reliable reader: 0 none, -1 held by an unknown process
    bool pool = false;
    std::uint64_t poolSequence = 0;  // a pool's last sequence: its publishes, as hz counts them
    std::size_t attached = 0;
    SlotActivitySample activity;  // the write counter; !valid when the header cannot be read
    double lastWriteAge = -1;     // seconds since the last write, -1 when never or unknown
};

// A row of the view: the observation and its rates since the previous look.
struct TopRow : TopObservation {
    bool rateKnown = false;  // the slot was counted at two looks
    double writesPerSecond = 0;
    bool bytesKnown = false;  // and the size of the last block taken is known
    double bytesPerSecond = 0;
};

// The columns the rows can be sorted by, in the order `s` cycles through them.
enum class TopSort { Name, Writes, Bytes, Waiting, LastWrite };

// The view's state between looks: rates come from the write counter of the same slot at the
// previous look. Pure: it is told what was seen and when. One thread uses it (no locking).
class TopModel {
public:
    // A look taken at `seconds` (a monotonic clock). A slot gone since the previous look
    // disappears; a slot new, re-made (its counter went back) or unreadable has no rate yet.
    // Pools likewise, by their sequence; a pool's bytes are not known.
    void Update(const std::vector<TopObservation>& slots, double seconds);

    // The rows whose escaped name contains `filter`, sorted by `sort`: the name ascending, the
    // others largest (or most recent) first, unknown values last, ties by name.
    std::vector<TopRow> Rows(TopSort sort, const std::string& filter = "") const;
    const std::vector<TopRow>& All() const { return rows_; }
    bool Sampled() const { return sampled_; }

    static TopSort NextSort(TopSort sort);
    // The column's heading, as the status line names the order.
    static const char* SortName(TopSort sort);

private:
    std::vector<TopRow> rows_;  // by name
    double seconds_ = 0;
    bool sampled_ = false;
};

// The table, `width` columns wide (80 at least is assumed; narrower lines are cut by the
// caller): its heading line and one line per row. The name column takes what the others leave,
// up to the longest name; names are escaped as everywhere in slotctl and cut with a '~' when
// they do not fit.
std::string TopHeading(const std::vector<TopRow>& rows, std::size_t width);
std::string TopLine(const TopRow& row, const std::vector<TopRow>& rows, std::size_t width);

// `text` (printable, UTF-8) cut or filled with spaces to exactly `columns` characters; a cut
// text ends in `mark` when one is given.
std::string FitColumns(const std::string& text, std::size_t columns, const char* mark = "");

// "12s", "5m", "3h", "2d" since the last write; "-" when never or unknown.
std::string WriteAgeText(double seconds);

}  // namespace slotctl
