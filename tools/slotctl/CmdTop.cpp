// SPDX-License-Identifier: Apache-2.0
// slotctl top: every slot and pool of the machine with its traffic, refreshed. Like ls it reads
// them from outside: no block is taken and no lock (a pool is surveyed through a private mapping
// of its tables, without attaching to it).
#include "Cli.h"
#include "Commands.h"
#include "Names.h"
#include "Signals.h"
#include "TopModel.h"
#include "TopScreen.h"

#include <Slot/PoolSurvey.h>
#include <Slot/SlotAttachments.h>
#include <Slot/SlotReportJson.h>
#include <Slot/SlotSurvey.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <iostream>
#include <map>
#include <set>

namespace slotctl {

using Slot::AddListEntry;
using Slot::JsonWriter;
using Slot::KindWord;
using Slot::StateWord;

namespace {

typedef std::chrono::steady_clock Clock;

double Seconds(Clock::time_point at) {
    return std::chrono::duration<double>(at.time_since_epoch()).count();
}

// One look at the machine: the slots and pools, and ls's view of each for --json.
struct Look {
    std::vector<TopObservation> slots;
    std::map<std::string, SlotReport> reports;
    std::map<std::string, Slot::PoolReport> pools;
};

double AgeSince(const boost::posix_time::ptime& then) {
    const boost::posix_time::time_duration age =
        boost::posix_time::microsec_clock::universal_time() - then;
    return std::max(0.0, age.total_microseconds() / 1e6);
}

void LookAtPools(Look& look) {
    for (const std::string& name : Slot::ListPools()) {
        Slot::PoolReport report = Slot::SurveyPool(name);
        TopObservation pool;
        pool.name = name;
        pool.pool = true;
        pool.kind = report.kind;
        pool.state = report.state;
        pool.queueKnown = report.blockCount != 0;
        pool.capacity = report.blockCount;
        pool.waiting = report.blockCount - std::min(report.freeBlocks, report.blockCount);
        pool.reliable = report.kind == "queue";
        pool.readerPid = report.queueReader;
        pool.attached = std::set<pid_t>(report.attached.begin(), report.attached.end()).size() +
                        report.otherNamespaceAttached;
        pool.poolSequence = report.lastSequence;
        if (report.lastPublishNs != 0) {
            pool.lastWriteAge =
                AgeSince(boost::posix_time::from_time_t(
                             static_cast<std::time_t>(report.lastPublishNs / 1000000000)) +
                         boost::posix_time::microseconds(
                             static_cast<long>(report.lastPublishNs % 1000000000 / 1000)));
        }
        look.slots.push_back(std::move(pool));
        look.pools.emplace(name, std::move(report));
    }
}

// A look takes one pass over /proc for every slot's attached processes, and stops between its
// steps once a stop signal came (the caller then looks at StopSignals::Received()).
Look LookAtSlots() {
    Look look;
    std::vector<SlotReport> reports = SlotSurvey::ListSlots();
    if (StopSignals::Received()) {
        return look;
    }
    std::vector<SlotAttachmentQuery> queries;
    for (const SlotReport& report : reports) {
        queries.push_back({report.name, report.pipePath});
    }
    const std::vector<SlotAttachmentList> attached = SlotAttachments::FindMany(queries);
    for (size_t i = 0; i < reports.size() && !StopSignals::Received(); ++i) {
        SlotReport& report = reports[i];
        TopObservation slot;
        slot.name = report.name;
        slot.kind = KindWord(report);
        slot.state = StateWord(report);
        slot.queueKnown = report.queue.capacity != 0;
        slot.waiting = report.queue.waiting;
        slot.capacity = report.queue.capacity;
        slot.reliable = report.kind == SlotKind::Reliable;
        slot.readerPid = report.readerPid;
        slot.attached = attached[i].processes.size();
        if (report.header.state != SlotPartState::Absent) {
            slot.activity = SlotActivity::Sample(report.name);
        }
        if (slot.activity.valid && !slot.activity.lastWrite.is_special()) {
            slot.lastWriteAge = AgeSince(slot.activity.lastWrite);
        }
        look.slots.push_back(std::move(slot));
        look.reports.emplace(report.name, std::move(report));
    }
    if (!StopSignals::Received()) {
        LookAtPools(look);
    }
    return look;
}

// A rate rounded to what is worth printing, or null.
void Rate(JsonWriter& json, bool known, double value) {
    if (known) {
        json.Real(std::round(value * 1000) / 1000);
    } else {
        json.Null();
    }
}

// One snapshot on one line: ls --json's fields of every slot and pool plus its traffic.
std::string SnapshotJson(const TopModel& model, const Look& look, double interval) {
    JsonWriter json;
    json.BeginObject();
    json.Key("time").String(FormatTime(boost::posix_time::microsec_clock::universal_time()));
    json.Key("interval_seconds").Real(interval);
    json.Key("slots").BeginArray();
    for (const TopRow& row : model.All()) {
        const auto pool = look.pools.find(row.name);
        const auto report = look.reports.find(row.name);
        if (row.pool ? pool == look.pools.end() : report == look.reports.end()) {
            continue;
        }
        json.BeginObject();
        if (row.pool) {
            Slot::AddPoolEntry(json, pool->second);
        } else {
            AddListEntry(json, report->second);
        }
        Rate(json.Key("writes_per_second"), row.rateKnown, row.writesPerSecond);
        Rate(json.Key("bytes_per_second"), row.rateKnown && row.bytesKnown, row.bytesPerSecond);
        json.Key("attached_processes").Number(row.attached);
        Rate(json.Key("last_write_age_seconds"), row.lastWriteAge >= 0, row.lastWriteAge);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    return json.Text();
}

std::string SnapshotTable(const TopModel& model) {
    // Not on a screen: names as wide as ls shows them.
    const std::size_t width = std::string::npos / 2;
    const std::vector<TopRow> rows = model.Rows(TopSort::Name);
    std::string table = TopHeading(rows, width) + "\n";
    for (const TopRow& row : rows) {
        table += TopLine(row, rows, width) + "\n";
    }
    return table;
}

// --once and --json: a snapshot after each interval (the rates need two looks).
int RunSnapshots(double interval, bool once, bool json) {
    TopModel model;
    Look look = LookAtSlots();
    if (StopSignals::Received()) {
        return ExitInterrupted;
    }
    model.Update(look.slots, Seconds(Clock::now()));
    const auto step = std::chrono::microseconds(static_cast<std::int64_t>(interval * 1e6));
    Clock::time_point due = Clock::now() + step;
    for (;;) {
        const auto waitMs =
            (std::chrono::duration_cast<std::chrono::microseconds>(due - Clock::now()).count() +
             999) /
            1000;
        if (WaitReadableOrStop(-1, static_cast<int>(std::max<std::int64_t>(0, waitMs))) ==
            WaitResult::Stopped) {
            return ExitInterrupted;
        }
        look = LookAtSlots();
        if (StopSignals::Received()) {
            return ExitInterrupted;
        }
        const Clock::time_point at = Clock::now();
        model.Update(look.slots, Seconds(at));
        due += step;
        if (due <= at) {
            due = at + step;  // late (a slow look, a suspended process): start afresh
        }
        if (!WriteOut(json ? SnapshotJson(model, look, interval) + "\n" : SnapshotTable(model))) {
            return OutputFailed(errno);
        }
        if (once) {
            return ExitOk;
        }
    }
}

}  // namespace

int RunTop(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("top", args, {"interval"}, {"once", "json"});
    arguments.ExpectOperands(0, 0, "no operands");
    const double interval = arguments.GetSeconds("interval", 1.0, 0.1, 3600);
    const bool json = arguments.Has("json");
    const bool terminal = ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1;
    const bool once = arguments.Has("once") || (!json && !terminal);
    if (once || json) {
        return RunSnapshots(interval, once, json);
    }
#ifdef SLOTCTL_WITH_SCREEN
    return RunTopScreen(interval, [] { return LookAtSlots().slots; });
#else
    throw CommandError(ExitFailure,
                       "top: this slotctl was built without ncurses, so it has no full-screen "
                       "view: use top --once or top --json");
#endif
}

}  // namespace slotctl
