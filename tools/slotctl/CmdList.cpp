// SPDX-License-Identifier: Apache-2.0
// slotctl ls / info: what is there, read without disturbing it.
#include "Cli.h"
#include "Commands.h"
#include "Json.h"
#include "Probe.h"

#include <boost/date_time/posix_time/posix_time.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace slotctl {

namespace {

std::string ReaderText(const SlotReport& report) {
    if (report.Kind() != "reliable") {
        return "-";
    }
    if (report.readerPid == 0) {
        return "none";
    }
    if (report.readerPid < 0) {
        return "held";
    }
    return "pid " + std::to_string(report.readerPid);
}

std::string LastWriteText(const SlotReport& report) {
    if (report.header.state != PartState::Ok || !report.header.Has(LastWriteTime)) {
        return "-";
    }
    return FormatTime(report.header.lastWrite);
}

void AddSummary(Json& json, const SlotReport& report) {
    json.Key("name").String(report.name);
    json.Key("state").String(report.State());
    const std::string kind = report.Kind();
    json.Key("kind");
    kind.empty() ? json.Null() : json.String(kind);
    const bool queueOk = report.queue.state == PartState::Ok;
    json.Key("max_block_size");
    queueOk ? json.Number(report.queue.maxBlockSize) : json.Null();
    json.Key("waiting");
    queueOk ? json.Number(report.queue.waiting) : json.Null();
    json.Key("capacity");
    queueOk ? json.Number(report.queue.capacity) : json.Null();
    json.Key("last_write");
    const std::string lastWrite = LastWriteText(report);
    lastWrite == "-" ? json.Null() : json.String(lastWrite);
    json.Key("reader");
    if (kind == "reliable") {
        json.BeginObject();
        json.Key("lock_file").String(report.lockPath);
        json.Key("held").Bool(report.readerPid != 0);
        json.Key("pid");
        report.readerPid > 0 ? json.SignedNumber(report.readerPid) : json.Null();
        json.EndObject();
    } else {
        json.Null();
    }
    json.Key("pipe");
    report.pipePath.empty() ? json.Null() : json.String(report.pipePath);
}

void AddPartState(Json& json, PartState state, const std::string& detail) {
    json.Key("state").String(PartStateText(state));
    json.Key("detail");
    detail.empty() ? json.Null() : json.String(detail);
}

std::string InfoJson(const SlotReport& report) {
    Json json;
    json.BeginObject();
    AddSummary(json, report);
    const HeaderInfo& h = report.header;
    json.Key("header").BeginObject();
    json.Key("object").String(ShmPath(report.name));
    AddPartState(json, h.state, h.detail);
    json.Key("size").Number(h.fileSize);
    if (h.state == PartState::Ok) {
        json.Key("free").Number(h.freeMemory);
        json.Key("named_objects").Number(h.namedObjects);
        json.Key("unique_objects").Number(h.uniqueObjects);
        json.Key("objects").BeginObject();
        for (int i = 0; i < HeaderObjectCount; ++i) {
            json.Key(HeaderObjectNames[i]);
            h.Has(HeaderObject(i)) ? json.Number(h.objectBytes[i]) : json.Null();
        }
        json.EndObject();
        json.Key("output_buffer_data_size").Number(h.outputDataSize);
        json.Key("output_buffer_handle").SignedNumber(h.outputHandle);
    }
    json.EndObject();
    const QueueInfo& q = report.queue;
    json.Key("queue").BeginObject();
    json.Key("object").String(ShmPath(QueueObject(report.name)));
    AddPartState(json, q.state, q.detail);
    json.Key("size").Number(q.fileSize);
    json.EndObject();
    json.EndObject();
    return json.Text();
}

void PrintPart(std::ostream& out, const char* label, PartState state, const std::string& detail) {
    out << "  " << Padded(label, 16) << PartStateText(state);
    if (!detail.empty()) {
        out << " (" << detail << ")";
    }
    out << "\n";
}

void PrintInfo(std::ostream& out, const SlotReport& report) {
    const HeaderInfo& h = report.header;
    const QueueInfo& q = report.queue;
    const std::string kind = report.Kind();
    const std::string state = report.State();
    out << "slot " << Quote(report.name) << "\n";
    out << "  " << Padded("state", 16) << state;
    if (state == "header-only") {
        out << " (half slot: the queue " << Quote(QueueObject(report.name)) << " is missing)";
    } else if (state == "queue-only") {
        out << " (half slot: the header segment " << Quote(report.name) << " is missing)";
    }
    out << "\n";
    out << "  " << Padded("kind", 16) << (kind.empty() ? "unknown" : kind);
    if (q.state == PartState::Ok) {
        out << " (queue capacity " << q.capacity << ")";
    }
    out << "\n";
    if (q.state == PartState::Ok) {
        out << "  " << Padded("max block size", 16) << q.maxBlockSize << " bytes\n";
        out << "  " << Padded("blocks waiting", 16) << q.waiting << " of " << q.capacity << "\n";
    }
    if (h.state == PartState::Ok && h.Has(LastWriteTime)) {
        out << "  " << Padded("last write", 16) << FormatTime(h.lastWrite);
        if (!h.lastWrite.is_special()) {
            const boost::posix_time::time_duration age =
                boost::posix_time::microsec_clock::universal_time() - h.lastWrite;
            char ago[64];
            std::snprintf(ago, sizeof(ago), " (%.1f s ago)",
                          static_cast<double>(age.total_milliseconds()) / 1000.0);
            out << ago;
        } else {
            out << " (not written since it was last opened)";
        }
        out << "\n";
    }
    if (kind == "reliable") {
        out << "  " << Padded("reader", 16);
        if (report.readerPid == 0) {
            out << "none";
        } else if (report.readerPid < 0) {
            out << "held by an unknown process";
        } else {
            out << "pid " << report.readerPid;
        }
        out << " (lock file " << report.lockPath << ")\n";
    }
    if (!report.pipePath.empty()) {
        out << "  " << Padded("named pipe", 16) << report.pipePath << "\n";
    }
    if (report.HasSharedMemory()) {
        out << "header segment " << ShmPath(report.name) << "\n";
        PrintPart(out, "state", h.state, h.detail);
        if (h.state != PartState::Absent) {
            out << "  " << Padded("size", 16) << h.fileSize << " bytes";
            if (h.state == PartState::Ok) {
                out << " (" << h.freeMemory << " free)";
            }
            out << "\n";
        }
        if (h.state == PartState::Ok) {
            out << "  " << Padded("named objects", 16) << h.namedObjects << " (and "
                << h.uniqueObjects << " unique: the header mutex)\n";
            const std::string values[HeaderObjectCount] = {FormatTime(h.lastWrite),
                                                           std::to_string(h.outputDataSize),
                                                           std::to_string(h.outputHandle), ""};
            for (int i = 0; i < HeaderObjectCount; ++i) {
                out << "    " << Padded(HeaderObjectNames[i], 25);
                if (h.Has(HeaderObject(i))) {
                    out << RightAligned(std::to_string(h.objectBytes[i]), 3) << " bytes";
                    if (!values[i].empty()) {
                        out << "  " << values[i];
                    }
                } else {
                    out << "MISSING";
                }
                out << "\n";
            }
        }
        out << "queue " << ShmPath(QueueObject(report.name)) << "\n";
        PrintPart(out, "state", q.state, q.detail);
        if (q.state != PartState::Absent) {
            out << "  " << Padded("size", 16) << q.fileSize << " bytes\n";
        }
        if (q.state == PartState::Ok) {
            out << "  " << Padded("capacity", 16) << q.capacity << " blocks of up to "
                << q.maxBlockSize << " bytes\n";
        }
    }
}

}  // namespace

int RunList(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("ls", args, {}, {"json"});
    arguments.ExpectOperands(0, 0, "no operands");
    const std::vector<SlotReport> reports = ScanSlots();
    if (arguments.Has("json")) {
        Json json;
        json.BeginArray();
        for (const SlotReport& report : reports) {
            json.BeginObject();
            AddSummary(json, report);
            json.EndObject();
        }
        json.EndArray();
        std::cout << json.Text() << std::endl;
        return ExitOk;
    }
    size_t nameWidth = 4;
    for (const SlotReport& report : reports) {
        nameWidth = std::max(nameWidth, std::min<size_t>(report.name.size(), 48));
    }
    std::ostringstream out;
    out << Padded("NAME", nameWidth) << "  " << Padded("KIND", 10) << "  " << Padded("STATE", 11)
        << "  " << RightAligned("MAX BLOCK", 9) << "  " << RightAligned("WAITING", 11) << "  "
        << Padded("LAST WRITE", 27) << "  READER\n";
    for (const SlotReport& report : reports) {
        const bool queueOk = report.queue.state == PartState::Ok;
        const std::string kind = report.Kind();
        out << Padded(report.name, nameWidth) << "  " << Padded(kind.empty() ? "-" : kind, 10)
            << "  " << Padded(report.State(), 11) << "  "
            << RightAligned(queueOk ? std::to_string(report.queue.maxBlockSize) : "-", 9) << "  "
            << RightAligned(queueOk ? std::to_string(report.queue.waiting) + "/" +
                                          std::to_string(report.queue.capacity)
                                    : "-",
                            11)
            << "  " << Padded(LastWriteText(report), 27) << "  " << ReaderText(report) << "\n";
    }
    std::cout << out.str() << std::flush;
    return ExitOk;
}

int RunInfo(const Context&, const std::vector<std::string>& args) {
    const Arguments arguments("info", args, {}, {"json"});
    arguments.ExpectOperands(1, 1, "one slot name");
    const std::string name = arguments.Operands()[0];
    CheckSlotName(name);
    const SlotReport report = InspectSlot(name);
    const PartState h = report.header.state;
    const PartState q = report.queue.state;
    if (h == PartState::NoAccess || q == PartState::NoAccess) {
        const bool header = h == PartState::NoAccess;
        throw CommandError(ExitFailure, "cannot open " +
                                            ShmPath(header ? name : QueueObject(name)) + ": " +
                                            (header ? report.header.detail : report.queue.detail));
    }
    auto noSlotPart = [](PartState state) {
        return state == PartState::Absent || state == PartState::Foreign;
    };
    if (noSlotPart(h) && noSlotPart(q) && report.pipePath.empty()) {
        throw CommandError(ExitFailure, Quote(name) + " is not a slot: " + report.NotASlotReason());
    }
    if (arguments.Has("json")) {
        std::cout << InfoJson(report) << std::endl;
    } else {
        std::ostringstream out;
        PrintInfo(out, report);
        std::cout << out.str() << std::flush;
    }
    return ExitOk;
}

}  // namespace slotctl
