// SPDX-License-Identifier: Apache-2.0
#include "TopModel.h"

#include "Cli.h"
#include "Names.h"
#include "WriteRate.h"

#include <Slot/SlotText.h>

#include <algorithm>
#include <cmath>
#include <map>

namespace slotctl {

void TopModel::Update(const std::vector<TopObservation>& slots, double seconds) {
    // A pool and a slot may have the same name.
    std::map<std::pair<std::string, bool>, const TopRow*> previous;
    for (const TopRow& row : rows_) {
        previous[{row.name, row.pool}] = &row;
    }
    const double elapsed = sampled_ ? seconds - seconds_ : 0;
    std::vector<TopRow> rows;
    rows.reserve(slots.size());
    for (const TopObservation& slot : slots) {
        TopRow row;
        static_cast<TopObservation&>(row) = slot;
        const auto before = previous.find({slot.name, slot.pool});
        if (slot.pool) {
            if (before != previous.end() && elapsed > 0 && slot.state == "healthy" &&
                before->second->state == "healthy" &&
                slot.poolSequence >= before->second->poolSequence) {
                row.rateKnown = true;
                row.writesPerSecond = (slot.poolSequence - before->second->poolSequence) / elapsed;
            }
        } else if (before != previous.end() && elapsed > 0 && slot.activity.valid &&
                   before->second->activity.valid) {
            const SlotActivitySample& last = before->second->activity;
            // A counter that went back is a slot made anew: its rate starts at the next look.
            if (SlotActivity::WritesBetween(last, slot.activity) <= (1u << 31)) {
                const std::uint32_t writes = WritesSince(last, slot.activity);
                row.rateKnown = true;
                row.writesPerSecond = writes / elapsed;
                double bytes = 0;
                row.bytesKnown = EstimatedBytes(writes, slot.activity, bytes);
                row.bytesPerSecond = row.bytesKnown ? bytes / elapsed : 0;
            }
        }
        rows.push_back(std::move(row));
    }
    std::sort(rows.begin(), rows.end(), [](const TopRow& a, const TopRow& b) {
        return a.name != b.name ? a.name < b.name : a.pool < b.pool;
    });
    rows_ = std::move(rows);
    seconds_ = seconds;
    sampled_ = true;
}

namespace {

// Orders by a value that may be unknown: known before unknown, larger before smaller.
template <typename T>
int Descending(bool aKnown, T a, bool bKnown, T b) {
    if (aKnown != bKnown) {
        return aKnown ? -1 : 1;
    }
    if (!aKnown || a == b) {
        return 0;
    }
    return a > b ? -1 : 1;
}

int Compare(TopSort sort, const TopRow& a, const TopRow& b) {
    switch (sort) {
        case TopSort::Name:
            return 0;
        case TopSort::Writes:
            return Descending(a.rateKnown, a.writesPerSecond, b.rateKnown, b.writesPerSecond);
        case TopSort::Bytes:
            return Descending(a.bytesKnown, a.bytesPerSecond, b.bytesKnown, b.bytesPerSecond);
        case TopSort::Waiting:
            return Descending(a.queueKnown, a.waiting, b.queueKnown, b.waiting);
        case TopSort::LastWrite:
            // The youngest write first: a larger negated age.
            return Descending(a.lastWriteAge >= 0, -a.lastWriteAge, b.lastWriteAge >= 0,
                              -b.lastWriteAge);
    }
    return 0;
}

}  // namespace

std::vector<TopRow> TopModel::Rows(TopSort sort, const std::string& filter) const {
    std::vector<TopRow> rows;
    for (const TopRow& row : rows_) {
        if (filter.empty() || Printable(row.name).find(filter) != std::string::npos) {
            rows.push_back(row);
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [sort](const TopRow& a, const TopRow& b) { return Compare(sort, a, b) < 0; });
    return rows;
}

TopSort TopModel::NextSort(TopSort sort) {
    switch (sort) {
        case TopSort::Name:
            return TopSort::Writes;
        case TopSort::Writes:
            return TopSort::Bytes;
        case TopSort::Bytes:
            return TopSort::Waiting;
        case TopSort::Waiting:
            return TopSort::LastWrite;
        case TopSort::LastWrite:
            break;
    }
    return TopSort::Name;
}

const char* TopModel::SortName(TopSort sort) {
    switch (sort) {
        case TopSort::Name:
            return "NAME";
        case TopSort::Writes:
            return "WRITE/S";
        case TopSort::Bytes:
            return "MB/S";
        case TopSort::Waiting:
            return "WAITING";
        case TopSort::LastWrite:
            return "LAST";
    }
    return "";
}

std::string FitColumns(const std::string& text, std::size_t columns, const char* mark) {
    const std::string cut(mark);
    const std::vector<std::size_t> starts = CharacterStarts(text);
    if (starts.size() <= columns) {
        return text + std::string(columns - starts.size(), ' ');
    }
    const std::size_t kept = columns > cut.size() ? columns - cut.size() : 0;
    return text.substr(0, starts[kept]) + cut.substr(0, columns - kept);
}

std::string WriteAgeText(double seconds) {
    return seconds < 0 ? "-" : AgeText(seconds);
}

namespace {

// The columns after the name: heading, width, and whether the values align right.
struct Column {
    const char* heading;
    std::size_t width;
    bool right;
};
const Column Columns[] = {{"KIND", 10, false}, {"STATE", 11, false}, {"WRITE/S", 7, true},
                          {"MB/S", 6, true},   {"WAITING", 7, true}, {"", 5, false},
                          {"READER", 7, true}, {"ATT", 3, true},     {"LAST", 5, true}};
const std::size_t ColumnCount = sizeof(Columns) / sizeof(Columns[0]);
const std::size_t BarWidth = 5;

// Everything after the name, separators included.
std::size_t FixedWidth() {
    std::size_t width = 0;
    for (const Column& column : Columns) {
        width += 1 + column.width;
    }
    return width;
}

std::size_t NameWidth(const std::vector<TopRow>& rows, std::size_t width) {
    std::size_t longest = 4;
    for (const TopRow& row : rows) {
        longest = std::max(longest, CharacterStarts(Printable(row.name)).size());
    }
    const std::size_t room = width > FixedWidth() + 10 ? width - FixedWidth() : 10;
    return std::min({longest, room, std::size_t(48)});
}

std::string Line(const std::string& name, std::size_t nameWidth,
                 const std::string (&values)[ColumnCount]) {
    std::string line = FitColumns(name, nameWidth, "~");
    for (std::size_t i = 0; i < ColumnCount; ++i) {
        line += ' ';
        line += Columns[i].right ? RightAligned(values[i], Columns[i].width)
                                 : Padded(values[i], Columns[i].width);
    }
    // Trailing blanks are noise in a copied table.
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::string WritesText(const TopRow& row) {
    if (!row.rateKnown) {
        return "-";
    }
    const double rate = row.writesPerSecond;
    return rate < 10 ? Fixed(rate, 1) : Fixed(rate, 0);
}

std::string MegabytesText(const TopRow& row) {
    if (!row.rateKnown || !row.bytesKnown) {
        return "-";
    }
    const double mb = row.bytesPerSecond / 1e6;
    return mb < 10 ? Fixed(mb, 2) : mb < 1000 ? Fixed(mb, 1) : Fixed(mb, 0);
}

std::string WaitingText(const TopRow& row) {
    if (!row.queueKnown) {
        return "-";
    }
    const std::string both = std::to_string(row.waiting) + "/" + std::to_string(row.capacity);
    return both.size() <= 7 ? both : std::to_string(row.waiting);
}

std::string Bar(const TopRow& row) {
    if (!row.queueKnown || row.capacity == 0) {
        return "";
    }
    const std::uint64_t waiting = std::min(row.waiting, row.capacity);
    std::size_t filled = static_cast<std::size_t>(
        std::llround(static_cast<double>(waiting) * BarWidth / static_cast<double>(row.capacity)));
    if (waiting != 0 && filled == 0) {
        filled = 1;  // not empty when something waits
    }
    return std::string(filled, '#') + std::string(BarWidth - filled, '.');
}

std::string ReaderText(const TopRow& row) {
    if (!row.reliable) {
        return "-";
    }
    if (row.readerPid == 0) {
        return "none";
    }
    return row.readerPid < 0 ? "held" : std::to_string(row.readerPid);
}

}  // namespace

std::string TopHeading(const std::vector<TopRow>& rows, std::size_t width) {
    std::string values[ColumnCount];
    for (std::size_t i = 0; i < ColumnCount; ++i) {
        values[i] = Columns[i].heading;
    }
    return Line("NAME", NameWidth(rows, width), values);
}

std::string TopLine(const TopRow& row, const std::vector<TopRow>& rows, std::size_t width) {
    const std::string values[ColumnCount] = {row.kind.empty() ? "-" : row.kind,
                                             row.state,
                                             WritesText(row),
                                             MegabytesText(row),
                                             WaitingText(row),
                                             Bar(row),
                                             ReaderText(row),
                                             std::to_string(row.attached),
                                             WriteAgeText(row.lastWriteAge)};
    return Line(Printable(row.name), NameWidth(rows, width), values);
}

}  // namespace slotctl
