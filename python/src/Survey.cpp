// SPDX-License-Identifier: Apache-2.0
// The slot survey for Python: each SlotReport becomes a dict that the package turns into
// dataclasses. Only the library reads slot objects; this file only converts its answers.

#include "Binding.h"

#include <Slot/SlotSurvey.h>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace slotpy {

namespace {

py::object SecondsSinceEpoch(const boost::posix_time::ptime& t) {
    if (t.is_special()) {
        return py::none();
    }
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    return py::float_(static_cast<double>((t - epoch).total_microseconds()) / 1e6);
}

py::dict PartOf(const SlotPartReport& part) {
    py::dict d;
    d["state"] = SlotPartStateText(part.state);
    d["object"] = part.object;
    d["path"] = part.path;
    d["detail"] = part.detail;
    d["size"] = part.size;
    d["age_seconds"] = part.ageSeconds < 0 ? py::object(py::none()) : py::float_(part.ageSeconds);
    d["owner"] = static_cast<unsigned long>(part.owner);
    d["mode"] = static_cast<unsigned long>(part.mode);
    d["writable"] = part.writable;
    return d;
}

py::dict ReportOf(const SlotReport& r) {
    py::dict header = PartOf(r.header);
    header["free_bytes"] = r.header.freeBytes;
    header["last_write"] = SecondsSinceEpoch(r.header.lastWrite);
    header["output_data_size"] = r.header.outputDataSize;
    header["output_buffer_size"] = r.header.outputBufferSize;
    py::dict queue = PartOf(r.queue);
    queue["capacity"] = r.queue.capacity;
    queue["max_block_size"] = r.queue.maxBlockSize;
    queue["waiting"] = r.queue.waiting;
    py::list locks;
    for (const SlotLockReport& lock : r.heldLocks) {
        py::dict l;
        l["lock"] = lock.lock;
        l["thread"] = static_cast<long>(lock.thread);
        l["process"] = static_cast<long>(lock.process);
        locks.append(l);
    }
    py::dict d;
    d["name"] = r.name;
    d["state"] = SlotStateText(r.state);
    d["detail"] = r.detail;
    d["kind"] = SlotKindText(r.kind);
    d["header"] = header;
    d["queue"] = queue;
    d["held_locks"] = locks;
    d["dead_holder"] = static_cast<long>(r.deadHolder);
    d["reader_lock_file"] = r.readerLockFile;
    d["reader_pid"] = static_cast<long>(r.readerPid);
    d["pipe_path"] = r.pipePath;
    return d;
}

}  // namespace

void BindSurvey(py::module_& m) {
    m.def(
        "inspect_slot",
        [](const std::string& name) {
            SlotReport report = WithoutGil(
                [&] { return CallLibrary([&] { return SlotSurvey::InspectSlot(name); }); });
            return ReportOf(report);
        },
        py::arg("name"), "SlotSurvey::InspectSlot as a dict.");
    m.def(
        "list_slots",
        [] {
            std::vector<SlotReport> reports =
                WithoutGil([] { return CallLibrary([] { return SlotSurvey::ListSlots(); }); });
            py::list result;
            for (const SlotReport& r : reports) {
                result.append(ReportOf(r));
            }
            return result;
        },
        "SlotSurvey::ListSlots as a list of dicts.");
}

}  // namespace slotpy
