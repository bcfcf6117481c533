// SPDX-License-Identifier: Apache-2.0
// libslot._native: configuration, factory operations, writers, SimpleSlotRW, write outcomes,
// and the exception types. Readers live in Reader.cpp, the survey in Survey.cpp, the log's way
// to Python in Logging.cpp.

#include "Binding.h"

#include <Slot/SimpleSlotRW.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotLeftovers.h>
#include <Slot/SlotNames.h>
#include <Slot/Version.h>
#include <Slot/WriteOutcome.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <optional>
#include <thread>
#include <vector>

#include <pthread.h>

namespace slotpy {

namespace {

std::atomic<bool> shuttingDown{false};

// The exit gate (Binding.h). A thread counts itself in gatePassing before it looks at
// gateClosed, and the closer sets gateClosed before it looks at gatePassing (both sequentially
// consistent): either the thread sees the gate closed, or the closer sees it passing and lets it
// take the GIL first.
std::atomic<bool> gateClosed{false};
std::atomic<int> gatePassing{0};
thread_local bool gateCloser = false;
thread_local int gateExempt = 0;  // CallbackGil objects alive on this thread

bool EnterGate() {
    if (gateCloser || gateExempt > 0) {
        return true;
    }
    gatePassing.fetch_add(1);
    if (gateClosed.load()) {
        gatePassing.fetch_sub(1);
        return false;
    }
    return true;
}

void LeaveGate() {
    if (!gateCloser && gateExempt == 0) {
        gatePassing.fetch_sub(1);
    }
}

std::atomic<unsigned> forkGeneration{0};

// A forked child has only the forking thread, which holds the GIL: nobody is passing there.
void AtForkChild() {
    gatePassing.store(0);
    forkGeneration.fetch_add(1);
}

[[noreturn]] void ParkForGood() {
    for (;;) {
        std::this_thread::sleep_for(std::chrono::hours(1));
    }
}

boost::posix_time::time_duration ToDuration(double seconds) {
    if (std::isnan(seconds)) {
        return boost::posix_time::time_duration(boost::posix_time::not_a_date_time);
    }
    if (std::isinf(seconds)) {
        return boost::posix_time::time_duration(seconds > 0 ? boost::posix_time::pos_infin
                                                            : boost::posix_time::neg_infin);
    }
    // Beyond this the microsecond count would overflow; such a time is refused as "infinite".
    const double limit = static_cast<double>(std::numeric_limits<int64_t>::max() / 2) / 1e6;
    if (std::fabs(seconds) > limit) {
        return boost::posix_time::time_duration(seconds > 0 ? boost::posix_time::pos_infin
                                                            : boost::posix_time::neg_infin);
    }
    return boost::posix_time::microseconds(static_cast<int64_t>(std::llround(seconds * 1e6)));
}

// A writer made by the factory. Any thread may write; close() ends it for every thread (a
// write already running finishes with its own reference).
class Writer {
public:
    explicit Writer(const SlotConfig& cfg) : name_(cfg.GetName()), type_(cfg.GetSlotType()) {
        writer_ = WithoutGil(
            [&] { return CallLibrary([&] { return SlotFactory::CreateSlotWriter(&cfg); }); });
    }
    // At interpreter exit the writer is dropped with the GIL held: taking the GIL back in a
    // destructor then could end the thread there.
    ~Writer() {
        if (writer_ && !ShuttingDown()) {
            Close();
        }
    }

    // Stores the bytes of `data` (any C-contiguous buffer) as one block; returns the outcome's
    // name ("stored", "discarded", "refused", "failed").
    std::string Write(const py::handle& data) {
        ISubscriberPtr writer = writer_;
        if (!writer) {
            throw SlotError("write to a closed writer of '" + name_ + "'");
        }
        return Slot::ToString(WriteBuffer(*writer, name_, data));
    }

    void Close() {
        ISubscriberPtr last;
        last.swap(writer_);
        WithoutGil([&] { last.reset(); });
    }

    bool Closed() const { return !writer_; }
    const std::string& Name() const { return name_; }
    const std::string& Type() const { return type_; }

private:
    std::string name_;
    std::string type_;
    ISubscriberPtr writer_;  // guarded by the GIL
};

py::dict CountsOf(const std::string& name) {
    Slot::WriteCounts counts = Slot::GetWriteCounts(name);
    py::dict result;
    result["stored"] = counts.stored;
    result["discarded"] = counts.discarded;
    result["refused"] = counts.refused;
    result["failed"] = counts.failed;
    result["bytes_lost_at_close"] = counts.bytesLostAtClose;
    return result;
}

}  // namespace

SlotConfig::SlotConfig(std::string name, std::string type, double updateSeconds, size_t queueLength,
                       size_t maxSize)
    : SlotCfg(name, type, ToDuration(updateSeconds), queueLength, maxSize),
      updateSeconds_(updateSeconds) {}

bool ShuttingDown() {
    return shuttingDown.load(std::memory_order_acquire);
}
void SetShuttingDown() {
    shuttingDown.store(true, std::memory_order_release);
}

unsigned ForkGeneration() {
    return forkGeneration.load();
}

void KeepInheritedReader(INotifierPtr reader) {
    static auto* inherited = new std::vector<INotifierPtr>;  // guarded by the GIL
    inherited->push_back(std::move(reader));
}

std::optional<std::chrono::steady_clock::time_point> Deadline(const py::object& timeout) {
    if (timeout.is_none()) {
        return std::nullopt;
    }
    double seconds = PyFloat_AsDouble(timeout.ptr());  // a float, or __float__ / __index__
    if (seconds == -1.0 && PyErr_Occurred()) {
        if (PyErr_ExceptionMatches(PyExc_TypeError)) {
            PyErr_Clear();
            throw py::type_error(std::string("timeout must be a number or None, not ") +
                                 Py_TYPE(timeout.ptr())->tp_name);
        }
        if (!PyErr_ExceptionMatches(PyExc_OverflowError)) {
            throw py::error_already_set();  // raised by the object's own conversion
        }
        // An integer beyond any float: its sign decides.
        PyErr_Clear();
        const int negative = PyObject_RichCompareBool(timeout.ptr(), py::int_(0).ptr(), Py_LT);
        if (negative < 0) {
            throw py::error_already_set();
        }
        seconds = negative ? -1.0 : std::numeric_limits<double>::infinity();
    }
    if (std::isnan(seconds)) {
        throw py::value_error("timeout must be a number, not NaN");
    }
    if (seconds < 0) {
        throw py::value_error("timeout must not be negative");
    }
    if (seconds > NoLimitSeconds) {  // also infinity; converting it would overflow
        return std::nullopt;
    }
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::duration<double>(seconds));
}

void RestoreGil(PyThreadState* state) {
    if (!EnterGate()) {
        ParkForGood();
    }
    PyEval_RestoreThread(state);
    LeaveGate();
}

namespace {

// A reader thread's Python thread state, made at its first callback and kept until the thread
// ends: one more PyGILState_Ensure than Release keeps it alive between callbacks, so that the
// thread's threading.local data and identity last and no callback pays for a new state. The
// thread deletes it when it ends (a thread-local destructor, after the library's thread body),
// while a closer joins it with the GIL released; at interpreter exit it is left to the
// interpreter's finalisation, which frees the states of threads gone.
struct KeptThreadState {
    bool kept = false;
    PyGILState_STATE outer{};

    ~KeptThreadState() {
        if (!kept || ShuttingDown() || !Py_IsInitialized() || _Py_IsFinalizing() || !EnterGate()) {
            return;
        }
        const PyGILState_STATE state = PyGILState_Ensure();
        LeaveGate();
        PyGILState_Release(outer);  // the GIL stays held: `state` took it
        PyGILState_Release(state);  // the last one: clears and deletes the state, lets the GIL go
    }
};
thread_local KeptThreadState keptThreadState;

}  // namespace

CallbackGil::CallbackGil(bool evenAtExit) {
    if (!evenAtExit &&
        (ShuttingDown() || !Py_IsInitialized() || _Py_IsFinalizing() || !EnterGate())) {
        return;
    }
    state_ = PyGILState_Ensure();
    if (!evenAtExit) {
        LeaveGate();
        if (!keptThreadState.kept) {
            keptThreadState.outer = PyGILState_Ensure();
            keptThreadState.kept = true;
        }
    }
    ++gateExempt;
    held_ = true;
}

CallbackGil::~CallbackGil() {
    if (held_) {
        --gateExempt;
        PyGILState_Release(state_);
    }
}

void CloseGilGate() {
    if (gateCloser) {
        return;
    }
    gateCloser = true;
    gateClosed.store(true);
    if (gatePassing.load() == 0) {
        return;
    }
    // Threads already passing wait for the GIL: hand it over until they have it. Bounded, so
    // that exit goes on whatever such a thread does next.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    PyThreadState* self = PyEval_SaveThread();
    while (gatePassing.load() != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    PyEval_RestoreThread(self);
}

}  // namespace slotpy

using namespace slotpy;

PYBIND11_MODULE(_native, m) {
    m.doc() = "Native part of libslot; use the libslot package instead.";
    pthread_atfork(nullptr, nullptr, AtForkChild);

    static py::exception<SlotError> slotError(m, "SlotError", PyExc_RuntimeError);
    py::register_exception<AbortSlotCreationException>(m, "SlotCreationError", slotError.ptr());
    py::register_exception<ReaderClosed>(m, "ReaderClosedError", slotError.ptr());
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p)
                std::rethrow_exception(p);
        } catch (const SlotError& e) {
            slotError(e.what());
        }
    });

    py::class_<SlotConfig>(m, "SlotConfig", R"doc(
A slot's description: name, type, update time, queue length and maximum block size.

``type`` is "discarding" (also ""), "reliable" or "posix-pipe". ``update_time`` is in seconds:
a reader waits at most that long per cycle, and a discarding reader drops blocks older than
that. ``queue_length`` is the number of blocks a reliable slot holds. ``max_size`` is the
largest block in bytes. A slot that already exists keeps the sizes it was created with.)doc")
        .def(py::init<std::string, std::string, double, size_t, size_t>(), py::arg("name"),
             py::arg("type") = "discarding", py::arg("update_time") = 0.1,
             py::arg("queue_length") = 16, py::arg("max_size") = 65536)
        .def_property_readonly("name", &SlotConfig::GetName, "The slot's name.")
        .def_property_readonly("type", &SlotConfig::GetSlotType, "The slot type.")
        .def_property_readonly("update_time", &SlotConfig::UpdateSeconds, "Update time in seconds.")
        .def_property_readonly("queue_length", &SlotConfig::GetMaxBufferLength,
                               "Blocks a reliable slot holds.")
        .def_property_readonly("max_size", &SlotConfig::GetMaxSize, "Largest block in bytes.")
        .def("__repr__", [](const SlotConfig& c) {
            return py::str(
                       "SlotConfig(name={!r}, type={!r}, update_time={!r}, "
                       "queue_length={!r}, max_size={!r})")
                .format(c.GetName(), c.GetSlotType(), c.UpdateSeconds(), c.GetMaxBufferLength(),
                        c.GetMaxSize());
        });

    m.def("slot_type_is_valid", &SlotFactory::SlotTypeIsValid, py::arg("type"),
          "True for the types the factory accepts: \"discarding\", \"reliable\", \"posix-pipe\" "
          "and \"\".");
    m.def(
        "slot_name_problem",
        [](const std::string& name) -> py::object {
            const std::optional<std::string> problem = Slot::SlotNameProblem(name);
            return problem ? py::object(py::str(*problem)) : py::object(py::none());
        },
        py::arg("name"),
        "Why ``name`` cannot name a slot (\"is empty\", \"is not a file name\", \"contains "
        "'/'\", \"is longer than 249 characters\"), or None when it can: the library's own "
        "rule, which slotctl and the gateway apply too.");
    m.def(
        "create_slot",
        [](const SlotConfig& cfg) {
            WithoutGil([&] { CallLibrary([&] { SlotFactory::CreateSlot(&cfg); }); });
        },
        py::arg("config"),
        "Opens or creates the shared-memory slot that ``config`` describes. The slot stays "
        "until remove_slot. Raises SlotCreationError with the library's text.");
    m.def(
        "remove_slot",
        [](const std::string& name) {
            return WithoutGil([&] {
                return CallLibrary([&] {
                    const bool removed = SlotFactory::RemoveSlot(name);
                    SlotLeftovers::RemoveReaderLockFile(name);
                    SlotLeftovers::RemoveGatewayClaimFile(name);
                    return removed;
                });
            });
        },
        py::arg("name"),
        "Unlinks the slot's header segment and queue; True when both were removed. Processes "
        "that have the slot open keep using the old objects. The reliable reader's lock file "
        "and a gateway's claim file are removed too unless a reader or a gateway holds them "
        "(as slotctl rm does).");

    py::class_<Writer>(m, "Writer", "Native writer; use libslot.Writer.")
        .def(py::init<const SlotConfig&>(), py::arg("config"))
        .def("write", &Writer::Write, py::arg("data"),
             "Stores ``data`` as one block; returns the outcome's name.")
        .def("close", &Writer::Close, "Releases the writer.")
        .def_property_readonly("closed", &Writer::Closed, "True once closed.")
        .def_property_readonly("name", &Writer::Name, "The slot's name.")
        .def_property_readonly("type", &Writer::Type, "The slot type.");

    m.def("write_counts", &CountsOf, py::arg("name"),
          "Counts of the outcomes of this process's writes into the slot ``name``.");
    m.def(
        "last_write_outcome", [] { return std::string(Slot::ToString(Slot::LastWriteOutcome())); },
        "Outcome name of the calling thread's last write into any slot.");

    m.def(
        "simple_read",
        [](const std::string& name) {
            std::string block =
                WithoutGil([&] { return CallLibrary([&] { return SimpleSlotRW(name).Read(); }); });
            return py::bytes(block);
        },
        py::arg("name"), "SimpleSlotRW(name).Read() as bytes.");
    m.def(
        "simple_write",
        [](const std::string& name, const py::handle& data) {
            Py_buffer view;
            if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_SIMPLE) != 0) {
                throw py::error_already_set();
            }
            std::string block(static_cast<const char*>(view.buf), static_cast<size_t>(view.len));
            PyBuffer_Release(&view);
            return WithoutGil([&] {
                CallLibrary([&] { SimpleSlotRW(name).Write(block); });
                return std::string(Slot::ToString(Slot::LastWriteOutcome()));
            });
        },
        py::arg("name"), py::arg("data"), "SimpleSlotRW(name).Write(data); the outcome's name.");

    m.def(
        "version", [] { return std::string(Slot::Version()); }, "Version of the libSlot loaded.");
    m.def("_set_shutting_down", &SetShuttingDown,
          "Interpreter exit: reader threads no longer call into Python.");

    BindReader(m);
    BindPool(m);
    BindSurvey(m);
    BindLogging(m);
}
