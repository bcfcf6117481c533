// SPDX-License-Identifier: Apache-2.0
#pragma once

// Pieces of the libslot Python extension shared by its source files.
//
// Threading rules of the whole extension:
// - every call that may block (slot creation, writes, reader start and stop, waits) runs with
//   the GIL released;
// - reader threads take the GIL only to run a Python callback, and never once the interpreter
//   has begun to shut down (the package stops every reader at exit, before finalisation);
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

// Runs `f` with the GIL released and takes the GIL back, also when `f` throws. Not an RAII
// guard on purpose: a thread that takes the GIL back while the interpreter is being finalised is
// ended by Python (pthread_exit), and that unwinding must not start inside a destructor.
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
        PyEval_RestoreThread(state);
        if (error)
            std::rethrow_exception(error);
    } else {
        std::optional<Result> result;
        try {
            result.emplace(f());
        } catch (...) {
            error = std::current_exception();
        }
        PyEval_RestoreThread(state);
        if (error)
            std::rethrow_exception(error);
        return std::move(*result);
    }
}

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
        // The interpreter is being finalised and ends this thread (pthread_exit) as it takes the
        // GIL back: the thread does not hold the GIL, so no Python object may be touched.
        throw;
#endif
    } catch (...) {
        PyBuffer_Release(&view);
        throw;
    }
    PyBuffer_Release(&view);
    return outcome;
}

// Set when the interpreter is about to shut down: reader threads no longer take the GIL.
bool ShuttingDown();
void SetShuttingDown();

void BindReader(py::module_& m);
void BindPool(py::module_& m);
// Stops every open pool reader (interpreter exit).
void CloseAllPoolReaders();
void BindSurvey(py::module_& m);
void BindLogging(py::module_& m);

}  // namespace slotpy
