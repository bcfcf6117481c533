// SPDX-License-Identifier: Apache-2.0
// slotctl top's model: rates from two looks, the orders, the filter and the table's lines, fed
// with looks made up here.
#include "TopModel.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using slotctl::TopModel;
using slotctl::TopObservation;
using slotctl::TopRow;
using slotctl::TopSort;

TopObservation Slot(const std::string& name, std::uint32_t sequence, std::uint32_t blockSize = 0) {
    TopObservation slot;
    slot.name = name;
    slot.kind = "reliable";
    slot.state = "slot";
    slot.activity.valid = true;
    slot.activity.writeSequence = sequence;
    slot.activity.hasOutput = blockSize != 0;
    slot.activity.outputDataSize = blockSize;
    return slot;
}

const TopRow& Find(const TopModel& model, const std::string& name) {
    static const TopRow none;
    for (const TopRow& row : model.All()) {
        if (row.name == name) {
            return row;
        }
    }
    ADD_FAILURE() << name << " is not shown";
    return none;
}

std::vector<std::string> Names(const std::vector<TopRow>& rows) {
    std::vector<std::string> names;
    for (const TopRow& row : rows) {
        names.push_back(row.name);
    }
    return names;
}

TEST(TopModel, RatesComeFromTheSameSlotsCounterAtTwoLooks) {
    TopModel model;
    model.Update({Slot("steady", 100, 1000), Slot("wraps", 0xffffff00u, 10), Slot("remade", 500),
                  Slot("unread", 0), Slot("sizeless", 7)},
                 10.0);
    for (const TopRow& row : model.All()) {
        EXPECT_FALSE(row.rateKnown) << row.name << ": a rate from one look";
    }
    TopObservation unread = Slot("unread", 50);
    unread.activity.valid = false;
    model.Update({Slot("steady", 300, 1000), Slot("wraps", 0x100, 10), Slot("remade", 10), unread,
                  Slot("sizeless", 27)},
                 12.0);

    const TopRow& steady = Find(model, "steady");
    ASSERT_TRUE(steady.rateKnown && steady.bytesKnown);
    EXPECT_DOUBLE_EQ(100.0, steady.writesPerSecond);
    EXPECT_DOUBLE_EQ(100000.0, steady.bytesPerSecond);
    // The counter is 32 bits wide: 512 writes across its wrap.
    EXPECT_DOUBLE_EQ(256.0, Find(model, "wraps").writesPerSecond);
    // A counter that went back is a new slot of the same name, not 4 billion writes.
    EXPECT_FALSE(Find(model, "remade").rateKnown);
    EXPECT_FALSE(Find(model, "unread").rateKnown);
    // Writes are counted, bytes are not known while no block was taken.
    const TopRow& sizeless = Find(model, "sizeless");
    EXPECT_TRUE(sizeless.rateKnown);
    EXPECT_DOUBLE_EQ(10.0, sizeless.writesPerSecond);
    EXPECT_FALSE(sizeless.bytesKnown);

    model.Update({Slot("remade", 30)}, 13.0);
    EXPECT_DOUBLE_EQ(20.0, Find(model, "remade").writesPerSecond) << "counted from the new start";
}

TEST(TopModel, ASlotGoneBetweenLooksLeavesAndComesBackWithoutARate) {
    TopModel model;
    model.Update({Slot("a", 0), Slot("b", 0)}, 1.0);
    model.Update({Slot("a", 5)}, 2.0);
    EXPECT_EQ(std::vector<std::string>{"a"}, Names(model.All()));
    // Its counter at the first look no longer counts: it may be another slot by now.
    model.Update({Slot("a", 10), Slot("b", 100)}, 3.0);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), Names(model.All()));
    EXPECT_FALSE(Find(model, "b").rateKnown);
    model.Update({}, 4.0);
    EXPECT_TRUE(model.All().empty());
}

TEST(TopModel, EachOrderPutsTheLargestFirstAndTheUnknownLast) {
    TopModel model;
    TopObservation a = Slot("a", 0, 100), b = Slot("b", 0, 1), c = Slot("c", 0, 100),
                   d = Slot("d", 0), e = Slot("e", 0);
    e.activity.valid = false;
    model.Update({e, d, c, b, a}, 0.0);
    a.activity.writeSequence = 10;  // 10/s, 1000 B/s
    b.activity.writeSequence = 50;  // 50/s, 50 B/s
    c.activity.writeSequence = 10;  // as a
    d.activity.writeSequence = 20;  // 20/s, bytes unknown
    a.queueKnown = b.queueKnown = c.queueKnown = true;
    a.waiting = 3;
    b.waiting = 9;
    c.waiting = 3;
    a.lastWriteAge = 5;
    b.lastWriteAge = 0.5;
    d.lastWriteAge = 60;
    c.lastWriteAge = 5;
    model.Update({a, b, c, d, e}, 1.0);

    typedef std::vector<std::string> Order;
    EXPECT_EQ((Order{"a", "b", "c", "d", "e"}), Names(model.Rows(TopSort::Name)));
    EXPECT_EQ((Order{"b", "d", "a", "c", "e"}), Names(model.Rows(TopSort::Writes)));
    EXPECT_EQ((Order{"a", "c", "b", "d", "e"}), Names(model.Rows(TopSort::Bytes)));
    EXPECT_EQ((Order{"b", "a", "c", "d", "e"}), Names(model.Rows(TopSort::Waiting)));
    EXPECT_EQ((Order{"b", "a", "c", "d", "e"}), Names(model.Rows(TopSort::LastWrite)));

    // `s` goes through every order and back.
    std::vector<TopSort> seen{TopSort::Name};
    for (TopSort sort = TopModel::NextSort(TopSort::Name); sort != TopSort::Name;
         sort = TopModel::NextSort(sort)) {
        ASSERT_EQ(seen.end(), std::find(seen.begin(), seen.end(), sort));
        seen.push_back(sort);
    }
    EXPECT_EQ(5u, seen.size());
}

TEST(TopModel, TheFilterMatchesTheNameAsShown) {
    TopModel model;
    model.Update({Slot("cam\x01left", 0), Slot("cam-right", 0), Slot("imu", 0)}, 0.0);
    EXPECT_EQ((std::vector<std::string>{"cam\x01left", "cam-right"}),
              Names(model.Rows(TopSort::Name, "cam")));
    // What the user can type is the escaped form.
    EXPECT_EQ(std::vector<std::string>{"cam\x01left"}, Names(model.Rows(TopSort::Name, "\\x01")));
    EXPECT_TRUE(model.Rows(TopSort::Name, "cam\x01").empty());
    EXPECT_EQ(3u, model.Rows(TopSort::Name, "").size());
}

// Characters (not bytes) of a line as a terminal shows it.
size_t Columns(const std::string& line) {
    return static_cast<size_t>(std::count_if(line.begin(), line.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

TEST(TopModel, LinesFitEightyColumnsAndShowNamesEscaped) {
    TopObservation wide = Slot("ctl\x1b[2J\x07\xff" + std::string(60, 'n'), 0, 65536);
    wide.kind = "discarding";
    wide.state = "dead-holder";
    wide.queueKnown = true;
    wide.waiting = 1000;
    wide.capacity = 1000;
    wide.reliable = true;
    wide.readerPid = 4194304;
    wide.attached = 999;
    wide.lastWriteAge = 100000;
    TopModel model;
    model.Update({wide, Slot("short", 0)}, 0.0);
    wide.activity.writeSequence = 9999999;
    model.Update({wide, Slot("short", 0)}, 1.0);
    const std::vector<TopRow> rows = model.Rows(TopSort::Name);

    const std::string heading = slotctl::TopHeading(rows, 80);
    const std::string line = slotctl::TopLine(rows[0], rows, 80);
    EXPECT_EQ(80u, Columns(heading)) << heading;
    EXPECT_EQ(80u, Columns(line)) << line;
    // Queue counts too wide for their column leave the waiting count and the bar.
    EXPECT_EQ("ctl\\x1b[2~ discarding dead-holder 9999999 655360    1000 ##### 4194304 999   27h",
              line);
    EXPECT_EQ(std::string::npos, line.find('\x1b'));
    // Wider: the whole name, escaped, up to the longest one.
    const std::string full = slotctl::TopLine(rows[0], rows, 200);
    EXPECT_EQ(0, full.find("ctl\\x1b[2J\\x07\\xff" + std::string(29, 'n') + "~ "));
    // Unknown values are dashes; the bar is blank without a queue.
    EXPECT_EQ("short" + std::string(44, ' ') +
                  "reliable   slot            0.0      -       -             -   0     -",
              slotctl::TopLine(rows[1], rows, 200));

    // A cut never splits a character: "é" is two bytes, one column.
    EXPECT_EQ("\xc3\xa9\xc3\xa9~", slotctl::FitColumns("\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9", 3, "~"));
    EXPECT_EQ("\xc3\xa9  ", slotctl::FitColumns("\xc3\xa9", 3, "~"));
}

}  // namespace
