// SPDX-License-Identifier: Apache-2.0
#pragma once

// Pieces of the libslot Python extension shared by its source files.
//
// Threading rules of the whole extension:
// - every call that may block (slot creation, writes, reader start and stop, waits) runs with
//   the GIL released;
// - reader threads take the GIL only to run a Python callback, and never once the interpreter
//   has begun to shut down (the package stops every reader at exit, before finalisation);
// - the GIL is taken back only through RestoreGil and CallbackGil (see the exit gate below);
// - a reader's last C++ reference is never dropped while the GIL is held by the dropping
//   thread, except on the reader's own thread, where the library defers the destruction.

#include <Slot/AbortSlotCreationException.h>
#include <Slot/ISlot.h>
#include <Slot/ISlotConfiguration.h>
#include <Slot/WriteOutcome.h>

#include <shared/ISubscriber.h>

#include <pybind11/pybind11.h>

#include <boost/shared_ptr.hpp>

#include <cxxabi.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace slotpy {

namespace py = pybind11;

// A slot's description, filled in from Python. Immutable once made; keeps the update time as
// Python gave it, in seconds, for its repr.
class SlotConfig final : public SlotCfg {
public:
    SlotConfig(std::string name, std::string type, double updateSeconds, size_t queueLength,
               size_t maxSize);

    double UpdateSeconds() const { return updateSeconds_; }

private:
    double updateSeconds_;
};

// Raised (and turned into libslot.SlotError) for a library failure other than a refused
// creation, and for use of a closed reader or writer.
class SlotError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Raised (and turned into libslot.ReaderClosedError) by a blocking read of a closed reader
// that has no block left.
class ReaderClosed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Runs a library call; library exceptions other than AbortSlotCreationException (which keeps
// its own type) leave as SlotError with the library's text.
template <typename F>
auto CallLibrary(F&& f) -> decltype(f()) {
    try {
        return f();
    } catch (const AbortSlotCreationException&) {
        throw;  // becomes libslot.SlotCreationError
    } catch (const std::exception& e) {
        throw SlotError(e.what());
    }
}

// The exit gate. While the interpreter is being finalised, CPython (before 3.14) ends every
// other thread that takes the GIL back with pthread_exit; in a thread coming back from the
// library, that unwinding would run through this extension's and pybind11's frames, which drop
// Python references without the GIL. So the package's exit hook closes the gate before
// finalisation (CloseGilGate). From then on:
// - a thread coming back from a library call is parked for the rest of the process instead of
//   taking the GIL (RestoreGil). Only daemon threads can be there: the interpreter joins the
//   others before the exit hooks run. Exempt are the thread that closed the gate and the
//   threads the exit hooks join (reader threads in a callback, the log pump): parking them
//   would hang the hook that waits for them;
// - a reader thread no longer takes the GIL to run a callback (CallbackGil).
// Threads already on their way to the GIL when it closes get it first.

// Takes the GIL back after PyEval_SaveThread, or parks this thread for good if the gate is
// closed.
void RestoreGil(PyThreadState* state);
// Closes the gate; called with the GIL, by the thread that finalises the interpreter.
void CloseGilGate();

// The GIL for a thread Python did not start, which the exit hooks join (a reader's thread, the
// log pump), taken through the gate and released by the destructor. Not taken (held() false)
// once the interpreter is shutting down, unless `evenAtExit`.
class CallbackGil {
public:
    explicit CallbackGil(bool evenAtExit = false);
    ~CallbackGil();
    CallbackGil(const CallbackGil&) = delete;
    CallbackGil& operator=(const CallbackGil&) = delete;

    bool held() const { return held_; }

private:
    bool held_ = false;
    PyGILState_STATE state_{};
};

// Runs `f` with the GIL released and takes the GIL back, also when `f` throws. Not an RAII
// guard on purpose: taking the GIL back may park the thread, which must not happen inside a
// destructor during unwinding.
template <typename F>
auto WithoutGil(F&& f) -> decltype(f()) {
    using Result = decltype(f());
    std::exception_ptr error;
    PyThreadState* state = PyEval_SaveThread();
    if constexpr (std::is_void_v<Result>) {
        try {
            f();
        } catch (...) {
            error = std::current_exception();
        }
        RestoreGil(state);
        if (error)
            std::rethrow_exception(error);
    } else {
        std::optional<Result> result;
        try {
            result.emplace(f());
        } catch (...) {
            error = std::current_exception();
        }
        RestoreGil(state);
        if (error)
            std::rethrow_exception(error);
        return std::move(*result);
    }
}

// A reader's close, for closers on other threads to wait for: close() must not return while the
// first close still waits for the reader's thread, or while the callback that closed its own
// reader still runs. Each member takes `mutex_` only briefly.
class CloseProgress {
public:
    // The first close begins, with the GIL; `inCallback` when made in the reader's own callback,
    // which then ends it when it returns (CallbackReturned).
    void Begin(bool inCallback) {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = true;
        inCallback_ = inCallback;
    }
    // The first close has ended: the reader's thread is joined.
    void End() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            running_ = false;
            inCallback_ = false;
        }
        done_.notify_all();
    }
    // On the reader's thread after each callback: ends a close made inside it.
    void CallbackReturned() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!inCallback_) {
                return;
            }
            running_ = false;
            inCallback_ = false;
        }
        done_.notify_all();
    }
    // Another closer, with the GIL: waits until the first close has ended, the GIL released
    // (the reader's callback may need it to finish).
    void Wait() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!running_) {
                return;
            }
        }
        WithoutGil([&] {
            std::unique_lock<std::mutex> lock(mutex_);
            done_.wait(lock, [&] { return !running_; });
        });
    }

private:
    std::mutex mutex_;
    std::condition_variable done_;
    bool running_ = false;     // guarded by mutex_
    bool inCallback_ = false;  // guarded by mutex_
};

// The deadline of a `timeout` argument in seconds: none (no limit) for None, infinity and
// anything beyond NoLimitSeconds; ValueError for NaN and negative values.
constexpr double NoLimitSeconds = 1e9;  // about 31 years; steady_clock counts 292 in nanoseconds
std::optional<std::chrono::steady_clock::time_point> Deadline(const py::object& timeout);

// Hands the bytes of `data` (any C-contiguous buffer) to a slot's or a pool's writer as one
// block, with the GIL released, and returns the write's outcome (read on this thread right after
// the write: outcomes are per thread).
inline Slot::WriteOutcome WriteBuffer(shared::ISubscriber& writer, const std::string& name,
                                      const py::handle& data) {
    Py_buffer view;
    if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_SIMPLE) != 0) {
        throw py::error_already_set();
    }
    Slot::WriteOutcome outcome = Slot::WriteOutcome::None;
    try {
        WithoutGil([&] {
            CallLibrary([&] {
                writer.onNotify(name, view.buf, static_cast<size_t>(view.len));
                outcome = Slot::LastWriteOutcome();
            });
        });
#ifdef __GLIBCXX__
    } catch (abi::__forced_unwind&) {
        // This thread is being ended (pthread_exit) and does not hold the GIL: no Python object
        // may be touched.
        throw;
#endif
    } catch (...) {
        PyBuffer_Release(&view);
        throw;
    }
    PyBuffer_Release(&view);
    return outcome;
}

// Forks since the import that this process descends from. A library reader made in an earlier
// generation has its thread only in an ancestor: destroying it here would wait for that thread
// for ever, so a forked child keeps it for good instead (KeepInheritedReader).
unsigned ForkGeneration();
void KeepInheritedReader(INotifierPtr reader);

// Set when the interpreter is about to shut down: reader threads no longer take the GIL.
bool ShuttingDown();
void SetShuttingDown();

// Ends a reader whose sink is closed, its close recorded in `progress`. From the reader's own
// callback the library destroys it once the callback has returned; at interpreter shutdown it
// goes at once, the GIL kept (no callback takes it any more, and no destructor takes it back);
// otherwise its thread is joined with the GIL released (a callback may wait for the GIL).
inline void ReleaseReader(CloseProgress& progress, INotifierPtr& reader, bool onOwnThread) {
    if (onOwnThread) {
        progress.Begin(true);  // ends when this callback returns
        reader.reset();
    } else if (ShuttingDown()) {
        reader.reset();
    } else {
        progress.Begin(false);
        WithoutGil([&] {
            reader.reset();
            progress.End();
        });
    }
}

// The C++ object of a pybind11 instance of one bound class with a pointer-sized holder (or of a
// Python subclass of it), or null before __init__ has made it. Such an instance has the simple
// layout once pybind11 has laid it out; before, its memory is zero (and a collection may visit
// it then: pybind11 allocates while laying out the first instance of a type).
template <typename T>
T* Constructed(PyObject* self) {
    const py::detail::instance* instance = reinterpret_cast<py::detail::instance*>(self);
    if (!instance->simple_layout || !instance->simple_holder_constructed) {
        return nullptr;
    }
    return static_cast<T*>(instance->simple_value_holder[0]);
}

// Garbage-collector support for a pybind11 class whose C++ object holds Python references (a
// reader's callback, which usually refers back to the reader's owner): without it a reader in
// such a cycle would never be collected, its thread and slot kept for the life of the process.
// T::Traverse(visit, arg) visits the references, T::Clear() lets them go (a reader closes).
// Instances are untracked before their destructor runs: it may let the GIL go, and a
// collection on another thread must not see an object that is being destroyed.
template <typename T>
py::custom_type_setup Collected() {
    static_assert(
        sizeof(std::unique_ptr<T>) <= sizeof(void*) * py::detail::instance_simple_holder_in_ptrs(),
        "Constructed reads the simple layout of a class with the default holder");
    return py::custom_type_setup([](PyHeapTypeObject* heapType) {
        PyTypeObject* type = &heapType->ht_type;
        type->tp_flags |= Py_TPFLAGS_HAVE_GC;
        type->tp_traverse = [](PyObject* self, visitproc visit, void* arg) {
            Py_VISIT(Py_TYPE(self));  // an instance of a heap type refers to its type
            T* native = Constructed<T>(self);
            return native ? native->Traverse(visit, arg) : 0;
        };
        type->tp_clear = [](PyObject* self) {
            if (T* native = Constructed<T>(self)) {
                native->Clear();
            }
            return 0;
        };
        type->tp_dealloc = [](PyObject* self) {
            PyObject_GC_UnTrack(self);
            py::detail::pybind11_object_dealloc(self);
        };
    });
}

void BindReader(py::module_& m);
void BindPool(py::module_& m);
// Stops every open pool reader (interpreter exit).
void CloseAllPoolReaders();
void BindSurvey(py::module_& m);
void BindLogging(py::module_& m);

}  // namespace slotpy
