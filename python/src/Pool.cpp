// SPDX-License-Identifier: Apache-2.0
// Zero-copy pools for Python: a writer's loan is a writable memoryview of its block in shared
// memory; a reader's callback gets a read-only memoryview of the delivered block, released when
// the callback returns; hold() keeps a block beyond the callback.
//
// Every memoryview handed out is made over a BlockBuffer, an exporter that counts its buffers.
// A view must never outlive the memory it shows: a loan is published or returned only when no
// view of it is left, and a reader's block that is still exported when the callback returns
// (a slice or an array made from the view and kept) stays held until the last export goes.

#include "Binding.h"

#include <Slot/PoolBlock.h>
#include <Slot/PoolFactory.h>
#include <Slot/PoolWriter.h>
#include <Slot/WriteOutcome.h>

#include <boost/shared_ptr.hpp>

#include <set>
#include <thread>

namespace slotpy {

namespace {

// The exporter behind every memoryview of a block. `data` is null once its owner has let the
// block go (no new view is made then); `kept` keeps the block while older exports live on.
struct BlockBuffer {
    PyObject ob_base;  // the object header (PyObject_HEAD)
    void* data;
    Py_ssize_t size;
    Py_ssize_t exports;
    bool writable;
    std::shared_ptr<void>* kept;  // a PoolBlock or an unpublished PoolLoan
};

int BlockBufferGet(PyObject* self, Py_buffer* view, int flags) {
    BlockBuffer* buffer = reinterpret_cast<BlockBuffer*>(self);
    if (buffer->data == nullptr) {
        PyErr_SetString(PyExc_ValueError, "the block is no longer available");
        view->obj = nullptr;
        return -1;
    }
    if (PyBuffer_FillInfo(view, self, buffer->data, buffer->size, buffer->writable ? 0 : 1,
                          flags) != 0) {
        return -1;
    }
    ++buffer->exports;
    return 0;
}

void BlockBufferRelease(PyObject* self, Py_buffer*) {
    BlockBuffer* buffer = reinterpret_cast<BlockBuffer*>(self);
    if (--buffer->exports == 0 && buffer->kept != nullptr) {
        delete buffer->kept;  // the last export of a block kept for it
        buffer->kept = nullptr;
    }
}

void BlockBufferDealloc(PyObject* self) {
    BlockBuffer* buffer = reinterpret_cast<BlockBuffer*>(self);
    delete buffer->kept;
    Py_TYPE(self)->tp_free(self);
}

PyBufferProcs blockBufferProcs = {BlockBufferGet, BlockBufferRelease};

PyTypeObject blockBufferType = [] {
    PyTypeObject type{};  // zeros: a static type, made ready by BindPool
    type.ob_base.ob_base.ob_refcnt = 1;
    type.tp_name = "libslot._native.BlockBuffer";
    type.tp_basicsize = sizeof(BlockBuffer);
    type.tp_dealloc = BlockBufferDealloc;
    type.tp_as_buffer = &blockBufferProcs;
    type.tp_flags = Py_TPFLAGS_DEFAULT;
    type.tp_doc = "Bytes of a pool block, seen through a memoryview.";
    return type;
}();

// A memoryview over a new BlockBuffer of the bytes, and that exporter.
struct View {
    py::object exporter;
    py::object view;

    explicit operator bool() const { return static_cast<bool>(view); }
    BlockBuffer* buffer() const { return reinterpret_cast<BlockBuffer*>(exporter.ptr()); }

    // Keeps the block for as long as an export of the view lives on.
    void KeepFor(std::shared_ptr<void> block) const {
        delete buffer()->kept;
        buffer()->kept = new std::shared_ptr<void>(std::move(block));
    }
};

View MakeView(void* data, size_t size, bool writable) {
    BlockBuffer* buffer = PyObject_New(BlockBuffer, &blockBufferType);
    if (buffer == nullptr) {
        throw py::error_already_set();
    }
    buffer->data = data;
    buffer->size = static_cast<Py_ssize_t>(size);
    buffer->exports = 0;
    buffer->writable = writable;
    buffer->kept = nullptr;
    View made;
    made.exporter = py::reinterpret_steal<py::object>(reinterpret_cast<PyObject*>(buffer));
    PyObject* view = PyMemoryView_FromObject(made.exporter.ptr());
    if (view == nullptr) {
        throw py::error_already_set();
    }
    made.view = py::reinterpret_steal<py::object>(view);
    return made;
}

// True when `view` (made by MakeView) is the only way left to the exporter's bytes: no slice,
// copy-free array or other view was made from it that still lives.
bool OnlyView(const View& view) {
    const PyMemoryViewObject* memory = reinterpret_cast<const PyMemoryViewObject*>(view.view.ptr());
    return memory->exports == 0 && memory->mbuf->exports == 1 && view.buffer()->exports == 1;
}

// Ends the view: touching it raises ValueError afterwards, and no new view is made from the
// exporter. True when no export is left; otherwise the caller must keep the block for them.
bool ReleaseView(const View& view) {
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);  // also called while an exception is on its way
    PyObject* result = PyObject_CallMethod(view.view.ptr(), "release", nullptr);
    if (result == nullptr) {
        PyErr_Clear();  // it has exports of its own, which keep it
    }
    Py_XDECREF(result);
    PyErr_Restore(type, value, traceback);
    view.buffer()->data = nullptr;
    return view.buffer()->exports == 0;
}

py::object Outcome(Slot::WriteOutcome outcome) {
    return py::module_::import("libslot").attr("WriteOutcome")(Slot::ToString(outcome));
}

class Loan;
class Hold;
// Loans and holds alive in this process, to be let go in a forked child (LeaveInheritedBlocks).
// Guarded by the GIL.
std::set<Loan*> liveLoans;
std::set<Hold*> liveHolds;

const char* const loanForkedText =
    "the loan was made before os.fork(): its block is the parent's, a child loans its own";
const char* const holdForkedText =
    "the hold was made before os.fork(): its block is the parent's, which may have returned it";

// A loaned block. Published or returned once; its view is released then.
class Loan {
public:
    Loan(Slot::PoolLoan loan, size_t size)
        : loan_(std::move(loan)), size_(size), generation_(ForkGeneration()) {
        if (loan_) {
            view_ = MakeView(loan_.data(), size_, true);
        }
        liveLoans.insert(this);
    }
    // An unpublished block returns to the pool, or stays loaned while a slice of its view lives.
    ~Loan() {
        liveLoans.erase(this);
        if (view_ && !Inherited() && !ReleaseView(view_)) {
            view_.KeepFor(std::make_shared<Slot::PoolLoan>(std::move(loan_)));
        }
    }

    // In a forked child the loaned block stays the parent's, which may publish it: the view is
    // released (no new one is made from it) and the loan ends without touching the pool (the
    // library leaves an inherited loan's block alone). True for such a loan.
    bool Inherited() {
        if (!inherited_ && generation_ != ForkGeneration()) {
            inherited_ = true;
            ended_ = true;
            if (view_) {
                // Slices made before the fork cannot be revoked; they keep the mapping.
                if (!ReleaseView(view_)) {
                    view_.KeepFor(std::make_shared<Slot::PoolLoan>(std::move(loan_)));
                }
                view_ = {};
            }
        }
        return inherited_;
    }

    py::object View() {
        if (Inherited()) {
            throw SlotError(loanForkedText);
        }
        if (!view_) {
            throw SlotError(ended_ ? "the loan has ended" : "the pool had no block for this loan");
        }
        return view_.view;
    }

    py::object Publish(const py::object& size) {
        if (Inherited()) {
            throw SlotError(loanForkedText);
        }
        if (ended_) {
            throw SlotError("the loan has ended");
        }
        if (!view_) {
            ended_ = true;
            return Outcome(loan_.publish(0));  // an empty loan: its outcome, not counted again
        }
        const size_t length = size.is_none() ? size_ : PublishSize(size);
        Slot::PoolLoan loan = Take();
        const Slot::WriteOutcome outcome = WithoutGil([&] { return loan.publish(length); });
        sequence_ = loan.sequence();  // given by the publish
        return Outcome(outcome);
    }

    // Returns the block to the pool unpublished. Idempotent; nothing in a forked child.
    void Release() {
        if (Inherited() || ended_) {
            return;
        }
        if (!view_) {
            ended_ = true;
            return;
        }
        Slot::PoolLoan loan = Take();
        WithoutGil([&] { loan = Slot::PoolLoan(); });
    }

    bool Valid() { return !Inherited() && static_cast<bool>(view_); }
    size_t Size() const { return size_; }
    uint64_t Sequence() const { return sequence_; }
    py::object LoanOutcome() const { return Outcome(loan_.outcome()); }

private:
    // The size given to publish(): TypeError for anything but an integer, ValueError for one
    // below 0 or above the loan's size.
    size_t PublishSize(const py::object& size) const {
        PyObject* index = PyNumber_Index(size.ptr());
        if (index == nullptr) {
            PyErr_Clear();
            throw py::type_error(std::string("publish() size must be an integer or None, not ") +
                                 Py_TYPE(size.ptr())->tp_name);
        }
        const py::object length = py::reinterpret_steal<py::object>(index);
        const int negative = PyObject_RichCompareBool(length.ptr(), py::int_(0).ptr(), Py_LT);
        const int above = PyObject_RichCompareBool(length.ptr(), py::int_(size_).ptr(), Py_GT);
        if (negative < 0 || above < 0) {
            throw py::error_already_set();
        }
        if (negative) {
            throw py::value_error("publish(" + std::string(py::str(length)) +
                                  "): the size must not be negative");
        }
        if (above) {
            throw py::value_error("publish(" + std::string(py::str(length)) + ") of a loan of " +
                                  std::to_string(size_) + " bytes");
        }
        return PyLong_AsSize_t(length.ptr());  // fits: not above size_
    }

    // Ends the view and takes the loan out; refused while anything else still sees the block.
    Slot::PoolLoan Take() {
        if (!OnlyView(view_)) {
            throw py::buffer_error(
                "a view of the loaned block is still in use (a slice, array or memoryview made "
                "from it): release it first");
        }
        ReleaseView(view_);
        view_ = {};
        ended_ = true;
        return std::move(loan_);
    }

    Slot::PoolLoan loan_;
    size_t size_;
    ::slotpy::View view_;  // empty for an empty or ended loan
    bool ended_ = false;
    uint64_t sequence_ = 0;
    unsigned generation_;
    bool inherited_ = false;
};

class PoolWriterHandle {
public:
    explicit PoolWriterHandle(const Slot::PoolConfig& config) : name_(config.name) {
        writer_ = WithoutGil([&] {
            return CallLibrary([&] { return Slot::PoolFactory::CreatePoolWriter(config); });
        });
    }
    ~PoolWriterHandle() {
        if (writer_ && !ShuttingDown()) {
            Close();
        }
    }

    std::unique_ptr<Loan> MakeLoan(size_t size) {
        boost::shared_ptr<Slot::PoolWriter> writer = Writer();
        Slot::PoolLoan loan =
            WithoutGil([&] { return CallLibrary([&] { return writer->loan(size); }); });
        return std::make_unique<Loan>(std::move(loan), size);
    }

    py::object Write(const py::handle& data) {
        boost::shared_ptr<Slot::PoolWriter> writer = Writer();
        return Outcome(WriteBuffer(*writer, name_, data));
    }

    void Close() {
        boost::shared_ptr<Slot::PoolWriter> last;
        last.swap(writer_);
        WithoutGil([&] { last.reset(); });
    }

    bool Closed() const { return !writer_; }
    const std::string& Name() const { return name_; }
    size_t MaxBlockSize() const { return Writer()->maxBlockSize(); }

private:
    boost::shared_ptr<Slot::PoolWriter> Writer() const {
        if (!writer_) {
            throw SlotError("use of a closed pool writer of '" + name_ + "'");
        }
        return writer_;
    }

    std::string name_;
    boost::shared_ptr<Slot::PoolWriter> writer_;  // guarded by the GIL
};

// A block kept beyond its callback.
class Hold {
public:
    explicit Hold(const Slot::PoolBlock& block)
        : block_(std::make_shared<Slot::PoolBlock>(block)),
          view_(MakeView(const_cast<void*>(block.data()), block.size(), false)),
          generation_(ForkGeneration()) {
        liveHolds.insert(this);
    }
    ~Hold() {
        liveHolds.erase(this);
        Close();
    }

    // In a forked child the block is the parent's, which may return it to the pool and see it
    // written again: the view is released (no new one is made from it) and the hold is closed;
    // the library leaves an inherited hold's block alone. True for such a hold.
    bool Inherited() {
        if (!inherited_ && generation_ != ForkGeneration()) {
            inherited_ = true;
            if (view_) {
                // Slices made before the fork cannot be revoked; they keep the mapping.
                if (!ReleaseView(view_)) {
                    view_.KeepFor(block_);
                }
                view_ = {};
            }
        }
        return inherited_;
    }

    // Lets the block go, or leaves it to the slices and arrays made from the view that live on.
    void Close() {
        if (Inherited() || !view_) {
            return;
        }
        if (!ReleaseView(view_)) {
            view_.KeepFor(block_);
        }
        view_ = {};
        block_.reset();
    }

    py::object View() {
        if (Inherited()) {
            throw SlotError(holdForkedText);
        }
        if (!view_) {
            throw SlotError("the hold is closed");
        }
        return view_.view;
    }
    bool Closed() { return Inherited() || !view_; }
    uint64_t Sequence() const { return block_ ? block_->sequence() : 0; }
    size_t Size() const { return block_ ? block_->size() : 0; }

private:
    std::shared_ptr<Slot::PoolBlock> block_;
    ::slotpy::View view_;
    unsigned generation_;
    bool inherited_ = false;
};

// After os.fork(), in the child: every loan and hold made before it lets its view go at once,
// so that views taken from them before the fork raise ValueError rather than show or change a
// block the parent may hand out again.
void LeaveInheritedBlocks() {
    for (Loan* loan : liveLoans) {
        loan->Inherited();
    }
    for (Hold* hold : liveHolds) {
        hold->Inherited();
    }
}

// Calls the Python callback with a view of each delivered block, on the reader's thread. Every
// block the library delivers reaches the callback, also while a close waits for the reader's
// thread: the pool counts it as consumed once delivered. The callback is dropped only when the
// reader has stopped (Close).
class PoolSink final : public shared::ISubscriber {
public:
    explicit PoolSink(PyObject* callback) : callback_(callback) { Py_INCREF(callback_); }

    void onNotify(const std::string&, const void* data, size_t size) override {
        // Never takes the GIL of an interpreter that is shutting down: the block is not
        // delivered then.
        CallbackGil gil;
        if (!gil.held()) {
            return;
        }
        PyObject* callback = callback_;
        if (callback) {
            Py_INCREF(callback);  // the callback may close its reader and drop callback_
            PoolSink* outer = current;
            current = this;
            Deliver(callback, data, size);
            progress_.CallbackReturned();  // before the DECREF, as in ReaderSink::Deliver
            Py_DECREF(callback);
            current = outer;
        }
    }

    // Drops the callback, once the reader delivers nothing more. Called with the GIL.
    void Close() {
        PyObject* callback = callback_;
        callback_ = nullptr;
        Py_XDECREF(callback);
    }

    // The garbage collector's visit of the callback. Called with the GIL.
    int Traverse(visitproc visit, void* arg) {
        Py_VISIT(callback_);
        return 0;
    }

    bool OnOwnThread() const { return current == this; }

    // The reader's close, for other closers to wait for.
    CloseProgress& Progress() { return progress_; }

private:
    static void Deliver(PyObject* callback, const void* data, size_t size) {
        View view;
        try {
            view = MakeView(const_cast<void*>(data), size, false);
        } catch (py::error_already_set& e) {
            e.restore();
            PyErr_WriteUnraisable(callback);
            return;
        }
        PyObject* result = PyObject_CallOneArg(callback, view.view.ptr());
        if (result) {
            Py_DECREF(result);
        } else {
            PyErr_WriteUnraisable(callback);  // reported; the reader goes on
        }
        if (!ReleaseView(view)) {
            // Something made from the view outlives the call: it keeps the block.
            view.KeepFor(std::make_shared<Slot::PoolBlock>(Slot::HoldCurrentBlock()));
        }
    }

    static thread_local PoolSink* current;
    PyObject* callback_;  // guarded by the GIL
    CloseProgress progress_;
};

thread_local PoolSink* PoolSink::current = nullptr;

class PoolReaderHandle;
std::set<PoolReaderHandle*> openPoolReaders;  // guarded by the GIL

class PoolReaderHandle {
public:
    PoolReaderHandle(const Slot::PoolConfig& config, const py::object& callback)
        : name_(config.name) {
        if (!PyCallable_Check(callback.ptr())) {
            throw py::type_error("callback must be callable");
        }
        sink_.reset(new PoolSink(callback.ptr()));
        try {
            reader_ = WithoutGil([&] {
                return CallLibrary(
                    [&] { return Slot::PoolFactory::CreatePoolReader(config, sink_); });
            });
        } catch (const std::exception&) {
            sink_->Close();  // drops the callback, which the sink's destructor would leak
            throw;
        }
        generation_ = ForkGeneration();
        openPoolReaders.insert(this);
    }
    ~PoolReaderHandle() { Close(); }

    // As Reader::Close: no callback starts after it returns; from the reader's own callback it
    // returns at once and the library ends the reader once the callback has returned; a close
    // while another thread's close is under way waits for that one.
    void Close() {
        openPoolReaders.erase(this);
        const bool inherited = Inherited();
        if (!reader_) {
            if (!inherited && !sink_->OnOwnThread()) {
                sink_->Progress().Wait();
            }
            return;
        }
        INotifierPtr reader;
        reader.swap(reader_);
        if (inherited) {
            sink_->Close();
            KeepInheritedReader(std::move(reader));  // its thread is in the parent
            return;
        }
        // The callback goes only after the release: blocks delivered until the reader's thread
        // is joined still reach it, and its last reference may run Python code that lets the
        // GIL go, when another closer must already find the close under way.
        ReleaseReader(sink_->Progress(), reader, sink_->OnOwnThread());
        sink_->Close();
    }

    std::unique_ptr<Hold> HoldBlock() {
        if (!sink_->OnOwnThread()) {
            throw SlotError("hold() outside the callback of the pool reader of '" + name_ + "'");
        }
        Slot::PoolBlock block = Slot::HoldCurrentBlock();
        if (!block) {
            throw SlotError("hold() outside the callback of the pool reader of '" + name_ + "'");
        }
        return std::make_unique<Hold>(block);
    }

    // An inherited reader is closed: its thread is in the parent.
    bool Closed() const { return !reader_ || Inherited(); }
    const std::string& Name() const { return name_; }

    // As Reader's: a pool reader found in an unreachable cycle is closed.
    int Traverse(visitproc visit, void* arg) { return sink_->Traverse(visit, arg); }
    void Clear() { Close(); }

private:
    // Made by the process this one was forked from.
    bool Inherited() const { return generation_ != ForkGeneration(); }

    std::string name_;
    boost::shared_ptr<PoolSink> sink_;
    INotifierPtr reader_;  // guarded by the GIL
    unsigned generation_ = 0;
};

}  // namespace

void CloseAllPoolReaders() {
    while (!openPoolReaders.empty()) {
        (*openPoolReaders.begin())->Close();
    }
}

void BindPool(py::module_& m) {
    if (PyType_Ready(&blockBufferType) != 0) {
        throw py::error_already_set();
    }
    py::module_::import("os").attr("register_at_fork")(py::arg("after_in_child") =
                                                           py::cpp_function(&LeaveInheritedBlocks));

    py::class_<Slot::PoolConfig>(m, "PoolConfig", R"doc(
A pool's description: name, kind, block size in bytes and number of blocks.

``kind`` is "latest" (the latest block, any number of readers) or "queue" (first in, first out,
one reader per machine, a publish into a full pool refused). A pool that already exists keeps
the block size and count it was created with.)doc")
        .def(py::init([](std::string name, std::string kind, size_t blockSize, size_t blocks) {
                 return Slot::PoolConfig{std::move(name), std::move(kind), blockSize, blocks};
             }),
             py::arg("name"), py::arg("kind") = "latest", py::arg("block_size") = 65536,
             py::arg("blocks") = 8)
        .def_readonly("name", &Slot::PoolConfig::name, "The pool's name.")
        .def_readonly("kind", &Slot::PoolConfig::kind, "\"latest\" or \"queue\".")
        .def_readonly("block_size", &Slot::PoolConfig::maxBlockSize, "Largest block in bytes.")
        .def_readonly("blocks", &Slot::PoolConfig::blockCount, "Number of blocks.")
        .def("__repr__", [](const Slot::PoolConfig& c) {
            return py::str("PoolConfig(name={!r}, kind={!r}, block_size={!r}, blocks={!r})")
                .format(c.name, c.kind, c.maxBlockSize, c.blockCount);
        });

    m.def("pool_kind_is_valid", &Slot::PoolFactory::PoolKindIsValid, py::arg("kind"),
          "True for \"latest\" and \"queue\".");
    m.def(
        "remove_pool",
        [](const std::string& name) {
            return WithoutGil(
                [&] { return CallLibrary([&] { return Slot::PoolFactory::RemovePool(name); }); });
        },
        py::arg("name"),
        "Unlinks the pool's file; True when one was removed. Processes that have the pool open "
        "keep using it.");
    m.def(
        "current_block_sequence", [] { return Slot::CurrentBlockSequence(); },
        "Inside a pool reader's callback: the sequence number of the block being delivered. "
        "Elsewhere: 0.");

    py::class_<Loan>(m, "PoolLoan", R"doc(
A block loaned from a pool: ``view`` is a writable memoryview of it in shared memory, seen by
nobody until publish(). Leaving a ``with`` block or dropping the loan without publishing
returns the block to the pool. A loan the pool could not give (no free block, too large) is
empty: false, with its ``outcome``; its publish() returns that outcome.)doc")
        .def_property_readonly("view", &Loan::View,
                               "Writable memoryview of the block (the size asked for).")
        .def_property_readonly("size", &Loan::Size, "The size asked for.")
        .def_property_readonly("sequence", &Loan::Sequence,
                               "After a publish() that stored it: the sequence number the block "
                               "carries, as readers see it. 0 before.")
        .def_property_readonly("outcome", &Loan::LoanOutcome,
                               "Why an empty loan is empty (REFUSED or FAILED); NONE otherwise.")
        .def("__bool__", &Loan::Valid)
        .def("publish", &Loan::Publish, py::arg("size") = py::none(),
             "Publishes the first ``size`` bytes (all by default) and ends the loan; returns "
             "the WriteOutcome. The view is released: BufferError while a slice or an array "
             "made from it still lives.")
        .def("release", &Loan::Release, "Returns the block to the pool unpublished.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Loan& loan, const py::args&) { loan.Release(); });

    py::class_<PoolWriterHandle>(m, "PoolWriter", "Native pool writer; use libslot.PoolWriter.")
        .def(py::init<const Slot::PoolConfig&>(), py::arg("config"))
        .def("loan", &PoolWriterHandle::MakeLoan, py::arg("size"),
             "A PoolLoan of a block for ``size`` bytes.")
        .def("write", &PoolWriterHandle::Write, py::arg("data"),
             "Copies ``data`` into a block and publishes it; returns the WriteOutcome.")
        .def("close", &PoolWriterHandle::Close, "Releases the writer.")
        .def_property_readonly("closed", &PoolWriterHandle::Closed, "True once closed.")
        .def_property_readonly("name", &PoolWriterHandle::Name, "The pool's name.")
        .def_property_readonly("block_size", &PoolWriterHandle::MaxBlockSize,
                               "The pool's block size.");

    py::class_<Hold>(m, "PoolHold", R"doc(
A pool block kept beyond the reader's callback: the block is not handed out again while the hold
(or a slice or array made from its view) lives. close() or dropping it lets the block go.)doc")
        .def_property_readonly("view", &Hold::View, "Read-only memoryview of the block.")
        .def_property_readonly("sequence", &Hold::Sequence, "The block's sequence number.")
        .def_property_readonly("size", &Hold::Size, "The block's size in bytes.")
        .def_property_readonly("closed", &Hold::Closed, "True once closed.")
        .def("close", &Hold::Close, "Lets the block go. Idempotent.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Hold& hold, const py::args&) { hold.Close(); });

    py::class_<PoolReaderHandle>(m, "PoolReader", "Native pool reader; use libslot.PoolReader.",
                                 Collected<PoolReaderHandle>())
        .def(py::init<const Slot::PoolConfig&, const py::object&>(), py::arg("config"),
             py::arg("callback"))
        .def("hold", &PoolReaderHandle::HoldBlock,
             "Inside the callback: a PoolHold of the block being delivered.")
        .def("close", &PoolReaderHandle::Close, "Stops the reader.")
        .def_property_readonly("closed", &PoolReaderHandle::Closed, "True once closed.")
        .def_property_readonly("name", &PoolReaderHandle::Name, "The pool's name.");
}

}  // namespace slotpy
