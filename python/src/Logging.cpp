// SPDX-License-Identifier: Apache-2.0
// The library's log in Python: unless the host configured log4cxx, WARN and above go to the
// Python logger "libslot.<log4cxx logger>" (e.g. "libslot.Slot.Reader"); configure_logging
// sends everything to stderr through log4cxx instead.
//
// Delivery is asynchronous on purpose. The library logs on any thread, reader threads
// included, and sometimes while it holds a slot's interprocess lock. Waiting there for the GIL
// would let one busy Python thread stall other processes, and could deadlock with a Python
// thread that holds the GIL (or a logging handler's lock) and waits for that slot or reader.
// So the appender only queues the record (bounded, never waiting for anything but a short
// mutex); one native pump thread, started with the first record, takes the GIL and hands the
// records to Python in order. At interpreter exit the pump delivers what is queued and stops
// before finalisation; later records go to stderr as "libslot: LEVEL [logger] message".

#include "Binding.h"

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/basicconfigurator.h>
#include <log4cxx/consoleappender.h>
#include <log4cxx/helpers/object.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/spi/loggerrepository.h>
#include <log4cxx/spi/loggingevent.h>

#include <pthread.h>
#include <unistd.h>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace slotpy {

namespace {

struct Record {
    std::string logger;
    int level;  // Python's level number: log4cxx's divided by 1000 (WARN 30, ERROR 40...)
    std::string message;
};

const size_t kMaxQueued = 10000;  // beyond this, records are counted and dropped

// Everything the appender and the pump share. Never destroyed: reader threads may log during
// static teardown.
struct LogPump {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Record> records;   // guarded by mutex
    size_t dropped = 0;           // guarded by mutex
    bool running = false;         // the pump thread exists; guarded by mutex
    bool stopped = false;         // interpreter exit: no more Python; guarded by mutex
    bool busy = false;            // the pump is handing records to Python; guarded by mutex
    std::thread thread;           // guarded by mutex
    PyObject* forward = nullptr;  // libslot._forward_log; set once at import, never released
};

LogPump* currentPump = new LogPump;  // replaced in a forked child

LogPump& Pump() {
    return *currentPump;
}

void WriteToStderr(const Record& record) {
    static const char* const names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
    const char* level = record.level >= 50   ? names[5]
                        : record.level >= 40 ? names[4]
                        : record.level >= 30 ? names[3]
                        : record.level >= 20 ? names[2]
                        : record.level >= 10 ? names[1]
                                             : names[0];
    const std::string line =
        std::string("libslot: ") + level + " [" + record.logger + "] " + record.message + "\n";
    // One write, so that lines of several threads do not mix.
    if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
    }
}

// The pump thread: waits for records with no GIL, then delivers a batch holding the GIL.
void RunPump() {
    LogPump& pump = Pump();
    std::unique_lock<std::mutex> lock(pump.mutex);
    for (;;) {
        pump.wake.wait(lock, [&] { return !pump.records.empty() || pump.stopped; });
        if (pump.records.empty()) {
            return;  // stopped, everything delivered
        }
        std::deque<Record> batch;
        batch.swap(pump.records);
        const size_t dropped = pump.dropped;
        pump.dropped = 0;
        pump.busy = true;
        lock.unlock();
        if (dropped != 0) {
            batch.push_front({"", 30,
                              std::to_string(dropped) +
                                  " log records of libSlot were dropped: they came faster than "
                                  "Python took them"});
        }
        // StopForwarding joins this thread before the interpreter is finalised, so the GIL can
        // be taken here, also once the exit gate is closed.
        {
            CallbackGil gil(/*evenAtExit=*/true);
            for (const Record& record : batch) {
                PyObject* logger = PyUnicode_DecodeUTF8(
                    record.logger.data(), static_cast<Py_ssize_t>(record.logger.size()),
                    "backslashreplace");
                PyObject* message = PyUnicode_DecodeUTF8(
                    record.message.data(), static_cast<Py_ssize_t>(record.message.size()),
                    "backslashreplace");
                PyObject* level = PyLong_FromLong(record.level);
                PyObject* result = nullptr;
                if (logger && message && level) {
                    result =
                        PyObject_CallFunctionObjArgs(pump.forward, logger, level, message, nullptr);
                }
                Py_XDECREF(logger);
                Py_XDECREF(message);
                Py_XDECREF(level);
                if (result) {
                    Py_DECREF(result);
                } else {
                    PyErr_WriteUnraisable(pump.forward);
                }
            }
        }
        lock.lock();
        pump.busy = false;
        pump.wake.notify_all();
    }
}

// Queues a record for Python, or writes it to stderr once Python is gone.
void Submit(Record record) {
    LogPump& pump = Pump();
    std::lock_guard<std::mutex> lock(pump.mutex);
    if (pump.stopped || pump.forward == nullptr) {
        WriteToStderr(record);
        return;
    }
    if (pump.records.size() >= kMaxQueued) {
        ++pump.dropped;
        return;
    }
    pump.records.push_back(std::move(record));
    if (!pump.running) {
        pump.running = true;
        pump.thread = std::thread(RunPump);
    }
    pump.wake.notify_all();
}

// A child forked from a process whose pump runs has no pump thread: it starts its own. The
// records queued in the parent were the parent's to deliver.
void AtForkPrepare() {
    Pump().mutex.lock();
}
void AtForkParent() {
    Pump().mutex.unlock();
}
// The parent's pump (its mutex held by the forking thread, its thread gone) is left as it is.
void AtForkChild() {
    LogPump* parent = currentPump;
    currentPump = new LogPump;
    currentPump->forward = parent->forward;
    currentPump->stopped = parent->stopped;
}

}  // namespace

namespace forward_detail {
using namespace log4cxx;

// Root appender that hands WARN and above to the pump. It overrides doAppend itself so that no
// appender lock is held around anything, and it steps aside as soon as the host adds an
// appender of its own on the way from the event's logger to the root.
class PythonForwardAppender : public AppenderSkeleton {
public:
    DECLARE_LOG4CXX_OBJECT(PythonForwardAppender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(PythonForwardAppender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()

    void doAppend(const spi::LoggingEventPtr& event, helpers::Pool& pool) override {
        if (event->getLevel()->toInt() < Level::WARN_INT) {
            return;  // costs no Python work, and nearly none here
        }
        append(event, pool);
    }
    void append(const spi::LoggingEventPtr& event, helpers::Pool&) override {
        if (HostAppenderReaches(event->getLoggerName())) {
            return;
        }
        Submit({event->getLoggerName(), event->getLevel()->toInt() / 1000,
                event->getRenderedMessage()});
    }
    void close() override {}
    bool requiresLayout() const override { return false; }

private:
    // True when an appender other than this one would also get the event.
    bool HostAppenderReaches(const std::string& loggerName) const {
        for (LoggerPtr logger = Logger::getLogger(loggerName); logger;
             logger = logger->getParent()) {
            for (const AppenderPtr& appender : logger->getAllAppenders()) {
                if (appender.get() != this) {
                    return true;
                }
            }
            if (!logger->getAdditivity()) {
                break;
            }
        }
        return false;
    }
};

IMPLEMENT_LOG4CXX_OBJECT(PythonForwardAppender)
}  // namespace forward_detail

namespace {

std::mutex forwardMutex;  // guards forwardAppender; never held while Python runs

// Never destroyed: log4cxx's own teardown at exit may come first, after
// which an appender cannot be destroyed any more.
std::shared_ptr<forward_detail::PythonForwardAppender>& forwardAppender =
    *new std::shared_ptr<forward_detail::PythonForwardAppender>;

// True when some logger of the repository, the root included, has an appender.
bool HostConfiguredAppenders() {
    log4cxx::spi::LoggerRepositoryPtr repository = log4cxx::LogManager::getLoggerRepository();
    if (!repository->getRootLogger()->getAllAppenders().empty()) {
        return true;
    }
    for (const log4cxx::LoggerPtr& logger : repository->getCurrentLoggers()) {
        if (!logger->getAllAppenders().empty()) {
            return true;
        }
    }
    return false;
}

// Import: forward to Python unless the host configured log4cxx (a configuration file found by
// log4cxx's default initialisation, or appenders added before the import).
void InstallForwarding(const py::object& forward) {
    LogPump& pump = Pump();
    {
        std::lock_guard<std::mutex> lock(pump.mutex);
        if (pump.forward == nullptr) {
            pump.forward = forward.ptr();
            Py_INCREF(pump.forward);  // kept for the life of the process
        }
    }
    static std::once_flag atFork;
    std::call_once(atFork, [] { pthread_atfork(AtForkPrepare, AtForkParent, AtForkChild); });
    // log4cxx's own locks are taken with the GIL released: a thread that logs meanwhile may be
    // waiting for them.
    WithoutGil([&] {
        std::lock_guard<std::mutex> lock(forwardMutex);
        if (forwardAppender || HostConfiguredAppenders()) {
            return;
        }
        forwardAppender = std::make_shared<forward_detail::PythonForwardAppender>();
        forwardAppender->setName("libslot-python");
        log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
        root->addAppender(forwardAppender);
        // Nobody listens below WARN: the library then does not even compose those lines.
        root->setLevel(log4cxx::Level::getWarn());
    });
}

// Interpreter exit: delivers what is queued, then stops the pump; later records go to stderr.
void StopForwarding() {
    LogPump& pump = Pump();
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(pump.mutex);
        pump.stopped = true;
        thread.swap(pump.thread);
        pump.wake.notify_all();
    }
    if (thread.joinable()) {
        // The pump needs the GIL to deliver the last records.
        WithoutGil([&] { thread.join(); });
    }
}

// Waits until every record queued so far has been handed to Python (at most `timeout` seconds,
// as Deadline reads it).
bool FlushForwarding(const py::object& timeout) {
    const std::optional<std::chrono::steady_clock::time_point> deadline = Deadline(timeout);
    LogPump& pump = Pump();
    return WithoutGil([&] {
        std::unique_lock<std::mutex> lock(pump.mutex);
        auto flushed = [&] { return (pump.records.empty() && !pump.busy) || pump.stopped; };
        if (!deadline) {
            pump.wake.wait(lock, flushed);
            return true;
        }
        return pump.wake.wait_until(lock, *deadline, flushed);
    });
}

void ConfigureLogging(const std::string& level) {
    log4cxx::LevelPtr wanted = log4cxx::Level::toLevel(level, nullptr);
    if (!wanted) {
        throw py::value_error("unknown log level '" + level +
                              "' (TRACE, DEBUG, INFO, WARN, ERROR, FATAL, OFF)");
    }
    WithoutGil([&] {
        std::lock_guard<std::mutex> lock(forwardMutex);
        log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
        if (forwardAppender) {
            root->removeAppender(forwardAppender);  // kept alive by forwardAppender
        }
        // BasicConfigurator's layout without the (unused) NDC, on stderr rather than its
        // stdout: a script's output is its own.
        static std::once_flag configured;
        std::call_once(configured, [] {
            log4cxx::LayoutPtr layout =
                std::make_shared<log4cxx::PatternLayout>("%r [%t] %p %c - %m%n");
            log4cxx::BasicConfigurator::configure(std::make_shared<log4cxx::ConsoleAppender>(
                layout, log4cxx::ConsoleAppender::getSystemErr()));
        });
        root->setLevel(wanted);
    });
}

}  // namespace

void BindLogging(py::module_& m) {
    m.def("configure_logging", &ConfigureLogging, py::arg("level") = "WARN",
          "Sends the library's log to stderr (\"<ms> [<thread>] LEVEL logger - message\", set "
          "up once) at ``level``, "
          "instead of WARN and above to the Python logger \"libslot\".");
    m.def("_install_log_forwarding", &InstallForwarding, py::arg("forward"),
          "Import: WARN and above go to forward(logger, level, message) unless log4cxx was "
          "configured by the host.");
    m.def("_stop_log_forwarding", &StopForwarding,
          "Interpreter exit: delivers the queued records and stops forwarding.");
    m.def("_flush_log", &FlushForwarding, py::arg("timeout") = py::float_(10.0),
          "Waits until the records queued so far reached Python; False after ``timeout``.");
}

}  // namespace slotpy
