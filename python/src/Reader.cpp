// SPDX-License-Identifier: Apache-2.0
// Readers for Python: a factory reader whose first subscriber either calls a Python callback on
// the reader's thread or queues each block for get()/iteration.

#include "Binding.h"

#include <Slot/SlotFactory.h>

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <set>

namespace slotpy {

namespace {

// Receives the reader's blocks on the reader's thread.
//
// Every block the library hands over until the reader's thread is joined is kept for get() or
// passed to the callback (it has left the slot); the library's stop ends the drain of a reliable
// slot after the block in hand, and what still waits stays in the slot for the next reader.
// FinishClose, once the thread is joined (or, inside the callback, the reader has stopped
// delivering): get() raises once drained, and the callback is dropped.
//
// Locks: mutex_ guards blocks_ and closed_; it is never held while Python runs or while the
// GIL is taken. callback_ is guarded by the GIL.
class ReaderSink final : public shared::ISubscriber {
public:
    explicit ReaderSink(PyObject* callback) : callback_(callback) { Py_XINCREF(callback_); }

    // The callback is dropped by FinishClose (with the GIL); one left here is leaked on purpose:
    // this destructor may run on a thread without the GIL.
    ~ReaderSink() override = default;

    void onNotify(const std::string&, const void* data, size_t size) override {
        if (hasCallback_) {
            Deliver(data, size);
        } else {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!closed_) {
                blocks_.emplace_back(static_cast<const char*>(data), size);
                arrived_.notify_all();
            }
        }
    }

    // Next block; waits until `until` (none: no limit), in slices so that signals (Ctrl-C) are
    // seen. Called with the GIL.
    py::bytes Get(std::optional<std::chrono::steady_clock::time_point> until) {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point deadline = until ? *until : Clock::time_point::max();
        for (;;) {
            std::string block;
            bool got = false;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (!blocks_.empty()) {
                    block.swap(blocks_.front());
                    blocks_.pop_front();
                    got = true;
                } else if (closed_) {
                    throw ReaderClosed("reader of '" + name_ + "' is closed");
                }
            }
            if (got) {
                return py::bytes(block);
            }
            Clock::time_point now = Clock::now();
            if (now >= deadline) {
                PyErr_SetString(PyExc_TimeoutError,
                                ("no block from '" + name_ + "' in time").c_str());
                throw py::error_already_set();
            }
            Clock::time_point slice = now + std::chrono::milliseconds(50);
            if (slice > deadline) {
                slice = deadline;
            }
            PyThreadState* thread = PyEval_SaveThread();
            {
                std::unique_lock<std::mutex> lock(mutex_);
                arrived_.wait_until(lock, slice, [&] { return !blocks_.empty() || closed_; });
            }
            RestoreGil(thread);
            if (PyErr_CheckSignals() != 0) {
                throw py::error_already_set();
            }
        }
    }

    size_t Pending() {
        std::lock_guard<std::mutex> lock(mutex_);
        return blocks_.size();
    }

    // The close has ended: no block comes any more, waiting get() calls return once drained,
    // and the callback is dropped. Called with the GIL.
    void FinishClose() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closed_ = true;
        }
        arrived_.notify_all();
        DropCallback();
    }

    // Close in a forked child of the process that made the sink: mutex_ and arrived_ are as the
    // parent's threads left them at the fork and may be held for good, so neither is touched.
    // Called with the GIL.
    void Abandon() { DropCallback(); }

    // The garbage collector's visit of the callback. Called with the GIL.
    int Traverse(visitproc visit, void* arg) {
        Py_VISIT(callback_);
        return 0;
    }

    // True on this sink's reader thread, inside its callback.
    bool OnOwnThread() const { return current == this; }

    // The reader's close, for other closers to wait for.
    CloseProgress& Progress() { return progress_; }

    // Blocks go to the callback: none is ever queued for get().
    bool HasCallback() const { return hasCallback_; }

    void SetName(const std::string& name) { name_ = name; }

private:
    // Runs the callback with the block. Never takes the GIL of an interpreter that is shutting
    // down (Python would end this thread inside the library): the block is not delivered then.
    void Deliver(const void* data, size_t size) {
        CallbackGil gil;
        if (!gil.held() || callback_ == nullptr) {
            return;
        }
        PyObject* callback = callback_;
        Py_INCREF(callback);  // the callback may close its reader and drop callback_
        ReaderSink* outer = current;
        current = this;
        PyObject* block = PyBytes_FromStringAndSize(static_cast<const char*>(data),
                                                    static_cast<Py_ssize_t>(size));
        PyObject* result = block ? PyObject_CallOneArg(callback, block) : nullptr;
        Py_XDECREF(block);
        if (result) {
            Py_DECREF(result);
        } else {
            // Reported through sys.unraisablehook; the reader goes on.
            PyErr_WriteUnraisable(callback);
        }
        // The callback has returned before its last reference goes: that reference may hold
        // the reader's last one, and a close run by the DECREF must find itself on the reader's
        // own thread (not wait for this callback's return, which only this thread can report).
        progress_.CallbackReturned();
        Py_DECREF(callback);
        current = outer;
    }

    // Called with the GIL; the callback's last reference may run Python code.
    void DropCallback() {
        PyObject* callback = callback_;
        callback_ = nullptr;
        Py_XDECREF(callback);
    }

    static thread_local ReaderSink* current;  // sink whose callback runs on this thread

    PyObject* callback_;  // guarded by the GIL
    const bool hasCallback_ = callback_ != nullptr;
    std::string name_;
    CloseProgress progress_;

    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<std::string> blocks_;  // guarded by mutex_
    bool closed_ = false;             // guarded by mutex_
};

thread_local ReaderSink* ReaderSink::current = nullptr;

class Reader;
std::set<Reader*> openReaders;  // guarded by the GIL

// A factory reader with a ReaderSink as its first subscriber, so that it receives every block,
// also those that waited in a reliable slot.
class Reader {
public:
    Reader(const SlotConfig& cfg, const py::object& callback)
        : name_(cfg.GetName()), type_(cfg.GetSlotType()) {
        if (!callback.is_none() && !PyCallable_Check(callback.ptr())) {
            throw py::type_error("callback must be callable or None");
        }
        sink_.reset(new ReaderSink(callback.is_none() ? nullptr : callback.ptr()));
        sink_->SetName(name_);
        try {
            reader_ = WithoutGil([&] {
                return CallLibrary([&] { return SlotFactory::CreateSlotReader(&cfg, sink_); });
            });
        } catch (const std::exception&) {
            sink_->FinishClose();  // drops the callback: the sink's destructor would leak it
            throw;
        }
        generation_ = ForkGeneration();
        openReaders.insert(this);
    }

    ~Reader() { Close(); }

    // Stops the reader: no callback starts after this returns (the reader's thread is joined;
    // a block it takes meanwhile still reaches the callback or the queue). From inside the
    // reader's own callback it returns at once and the reader is destroyed when the callback
    // has returned. A close while another thread's close is still under way waits for that one.
    void Close() {
        openReaders.erase(this);
        if (!reader_) {
            // Not on the reader's own thread: the first close may be joining it. Not in a forked
            // child: that close is the parent's.
            if (!Inherited() && !sink_->OnOwnThread()) {
                sink_->Progress().Wait();
            }
            return;
        }
        INotifierPtr reader;
        reader.swap(reader_);
        if (Inherited()) {
            sink_->Abandon();
            KeepInheritedReader(std::move(reader));  // its thread is in the parent
            return;
        }
        // The callback is dropped only after the release: its last reference may run Python
        // code that lets the GIL go, and another closer must find the close under way by then.
        ReleaseReader(sink_->Progress(), reader, sink_->OnOwnThread());
        sink_->FinishClose();
    }

    py::bytes Get(const py::object& timeout) {
        const std::optional<std::chrono::steady_clock::time_point> deadline = Deadline(timeout);
        if (sink_->HasCallback()) {
            throw SlotError("reader of '" + name_ +
                            "' has a callback: blocks go to it, not to get()");
        }
        if (Inherited()) {
            Close();
            throw ReaderClosed("reader of '" + name_ +
                               "' was opened before os.fork(): a child opens its own");
        }
        return sink_->Get(deadline);
    }

    // An inherited reader is closed: nothing ever arrives, and what its sink held at the fork
    // may have been half changed by the parent's threads.
    bool Closed() const { return !reader_ || Inherited(); }
    size_t Pending() { return Inherited() ? 0 : sink_->Pending(); }
    const std::string& Name() const { return name_; }
    const std::string& Type() const { return type_; }

    // The garbage collector's view (Collected): the callback is the reader's one reference to
    // Python objects; a reader found in an unreachable cycle is closed, which drops it.
    int Traverse(visitproc visit, void* arg) { return sink_->Traverse(visit, arg); }
    void Clear() { Close(); }

private:
    // Made by the process this one was forked from.
    bool Inherited() const { return generation_ != ForkGeneration(); }

    std::string name_;
    std::string type_;
    boost::shared_ptr<ReaderSink> sink_;
    INotifierPtr reader_;  // guarded by the GIL
    unsigned generation_ = 0;
};

// Interpreter exit: closes the exit gate and stops every reader still open, before the
// interpreter is finalised.
void CloseAllReaders() {
    CloseGilGate();
    while (!openReaders.empty()) {
        (*openReaders.begin())->Close();
    }
    CloseAllPoolReaders();
    SetShuttingDown();
}

}  // namespace

void BindReader(py::module_& m) {
    py::class_<Reader>(m, "Reader", "Native reader; use libslot.Reader.", Collected<Reader>())
        .def(py::init<const SlotConfig&, const py::object&>(), py::arg("config"),
             py::arg("callback") = py::none())
        .def("get", &Reader::Get, py::arg("timeout") = py::none(),
             "Next block as bytes; TimeoutError after ``timeout`` seconds, ReaderClosedError "
             "once closed and drained, SlotError for a reader with a callback.")
        .def("close", &Reader::Close, "Stops the reader.")
        .def_property_readonly("closed", &Reader::Closed, "True once closed.")
        .def_property_readonly("pending", &Reader::Pending, "Blocks received, not yet taken.")
        .def_property_readonly("name", &Reader::Name, "The slot's name.")
        .def_property_readonly("type", &Reader::Type, "The slot type.");
    m.def("_close_all_readers", &CloseAllReaders,
          "Interpreter exit: closes the exit gate and stops every open reader; afterwards "
          "reader threads never call into Python.");
}

}  // namespace slotpy
