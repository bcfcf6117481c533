// SPDX-License-Identifier: Apache-2.0
#include <Slot/SlotFactory.h>

#include <Slot/AbortSlotCreationException.h>
#include <Slot/BoostInterprocess/BaseQueueSlot.h>
#include <Slot/BoostInterprocess/DiscardingSlot.h>
#include <Slot/BoostInterprocess/DiscardingSlotReader.h>
#include <Slot/BoostInterprocess/ReliableSlot.h>
#include <Slot/BoostInterprocess/ReliableSlotReader.h>
#include <Slot/ConfigurationTags.h>
#include <Slot/IFileOutputCfg.h>
#include <Slot/SlotWriter.h>

#include <FileUtils/FSSAutoReopen.h>
#include <FileUtils/NamedPipeCreator.h>
#include <FileUtils/PosixFileReader.h>
#include <shared/FileHelpers.h>
#include <shared/SharedMemory.h>

#include <log4cxx/logger.h>
#include <boost/function.hpp>
#include <boost/interprocess/shared_memory_object.hpp>

#include <cstdint>
#include <limits>
#include <memory>
#include <thread>

namespace SlotType = Configuration::Object::Slot::Type;

namespace {

log4cxx::LoggerPtr SlotLogger() {
    return log4cxx::Logger::getLogger("Slot");
}

// Refuses an invalid type, and a name that the system would cut short at a NUL byte (two
// names would then share one slot), before anything is created.
void CheckType(const ISlotConfiguration* cfg) {
    if (!SlotFactory::SlotTypeIsValid(cfg->GetSlotType())) {
        throw AbortSlotCreationException("Invalid slot type " + cfg->GetSlotType());
    }
    const std::string name = cfg->GetName();
    if (name.find('\0') != std::string::npos) {
        throw AbortSlotCreationException("Slot could not be created: the name '" +
                                         name.substr(0, name.find('\0')) +
                                         "...' contains a NUL byte");
    }
}

// Refuses a size of the configuration that does not fit the 32 bits the slot is made with,
// before it is narrowed.
unsigned int CheckedSize(std::uint64_t value, const char* what, const ISlotConfiguration* cfg) {
    if (value > std::numeric_limits<unsigned int>::max()) {
        throw AbortSlotCreationException("Slot could not be created: " + std::string(what) + " " +
                                         std::to_string(value) + " of '" + cfg->GetName() +
                                         "' does not fit 32 bits");
    }
    return static_cast<unsigned int>(value);
}

// Refused before anything is made, for every kind of reader.
void CheckUpdateTime(const ISlotConfiguration* cfg) {
    BaseSlotReader::CheckUpdateTime(cfg->GetName(), cfg->GetUpdateTime());
}

// Owner of a reader handed out by the factory. The last reference may be dropped on the
// reader's own thread, inside a subscriber's onNotify: BaseSlotReader::Release then lets the
// thread end and delete the reader instead of joining itself. The first subscriber, if any,
// is released only after the reader.
struct ReaderDeleter {
    ISubscriberPtr firstSubscriber;
    void operator()(BaseSlotReader* reader) {
        ISubscriberPtr keep;
        keep.swap(firstSubscriber);
        BaseSlotReader::Release(reader, keep);
    }
};

// The same for a pipe reader: on its own thread it leaves its subscribers at once (later bytes
// stay in the pipe for the next reader) and a helper thread deletes it, which joins the reader's
// thread once the notification in progress has returned.
struct PipeReaderDeleter {
    ISubscriberPtr firstSubscriber;
    void operator()(FileUtils::PosixFileReader* reader) {
        ISubscriberPtr keep;
        keep.swap(firstSubscriber);
        if (reader != nullptr && reader->OnOwnThread()) {
            reader->unsubscribeAll();
            std::thread([reader, keep]() { delete reader; }).detach();
            return;
        }
        delete reader;  // keep goes after the reader
    }
};

std::string CreatePipe(const ISlotConfiguration* cfg) {
    const std::string path = FileUtils::NamedPipeCreator::ConstructPipeFilename(cfg->GetName());
    if (!FileUtils::NamedPipeCreator::CreateIfNeeded(path)) {
        throw AbortSlotCreationException("Failed to create named pipe " + path);
    }
    return path;
}

}  // namespace

bool SlotFactory::SlotTypeIsValid(const std::string& type) {
    return type == SlotType::reliableTag || type == SlotType::discardingTag ||
           type == SlotType::posixPipeTag || type.empty();
}

boost::shared_ptr<ISlot> SlotFactory::CreateSlot(const ISlotConfiguration* cfg) {
    CheckType(cfg);
    const std::string name = cfg->GetName();
    const unsigned int maxSize = CheckedSize(cfg->GetMaxSize(), "max size", cfg);
    if (cfg->GetSlotType() == SlotType::reliableTag) {
        const unsigned int length =
            CheckedSize(cfg->GetMaxBufferLength(), "max buffer length", cfg);
        return boost::shared_ptr<ISlot>(
            new ReliableSlot(boost::interprocess::open_or_create, name.c_str(), maxSize, length));
    }
    // Discarding, posix-pipe and the empty type: a one-block slot; the buffer length is not asked.
    return boost::shared_ptr<ISlot>(
        new DiscardingSlot(boost::interprocess::open_or_create, name.c_str(), maxSize));
}

bool SlotFactory::RemoveSlot(std::string name) {
    const bool headerResult = shared::RemoveSharedMemory(name.c_str());  // true means failure
    const bool queueResult = boost::interprocess::shared_memory_object::remove(
        BaseQueueSlot::GetQueueName(name).c_str());
    log4cxx::LoggerPtr logger = SlotLogger();
    if (logger->isDebugEnabled()) {
        LOG4CXX_DEBUG(logger, name << " remove results : queue " << queueResult << " header shm "
                                   << headerResult);
    }
    return queueResult && !headerResult;
}

INotifierPtr SlotFactory::CreateSlotReader(const ISlotConfiguration* cfg) {
    return CreateSlotReader(cfg, ISubscriberPtr());
}

INotifierPtr SlotFactory::CreateSlotReader(const ISlotConfiguration* cfg,
                                           const ISubscriberPtr& firstSubscriber) {
    return CreateSpinningSlotReader(cfg, boost::posix_time::time_duration(0, 0, 0),
                                    firstSubscriber);
}

INotifierPtr SlotFactory::CreateSpinningSlotReader(
    const ISlotConfiguration* cfg, const boost::posix_time::time_duration& spinBudget,
    const ISubscriberPtr& firstSubscriber) {
    log4cxx::LoggerPtr logger = SlotLogger();
    CheckType(cfg);
    CheckUpdateTime(cfg);
    BaseSlotReader::CheckSpinBudget(cfg->GetName(), spinBudget);
    const std::string type = cfg->GetSlotType();
    if (type == SlotType::posixPipeTag) {
        if (logger->isInfoEnabled()) {
            LOG4CXX_INFO(logger, "Creating FileReader for posix-pipe " << cfg->GetName());
        }
        const unsigned int maxSize = CheckedSize(cfg->GetMaxSize(), "max size", cfg);
        const std::string path = CreatePipe(cfg);
        std::unique_ptr<FileUtils::PosixFileReader> reader(
            new FileUtils::PosixFileReader(path, maxSize, cfg->GetUpdateTime()));
        if (firstSubscriber) {
            reader->subscribe(firstSubscriber.get());
        }
        return INotifierPtr(reader.release(), PipeReaderDeleter{firstSubscriber});
    }
    const bool reliable = type == SlotType::reliableTag;
    if (logger->isInfoEnabled()) {
        LOG4CXX_INFO(logger, "Creating "
                                 << (reliable ? "ReliableSlotReader" : "DiscardingSlotReader")
                                 << " for " << cfg->GetName());
    }
    boost::shared_ptr<ISlot> slot = CreateSlot(cfg);
    std::unique_ptr<BaseSlotReader> reader;
    if (reliable) {
        reader.reset(new ReliableSlotReader(slot, cfg->GetUpdateTime()));
    } else {
        reader.reset(new DiscardingSlotReader(slot, cfg->GetUpdateTime()));
    }
    reader->SetSpinBudget(spinBudget);
    // Subscribed before the thread starts: nothing the thread takes goes to nobody.
    if (firstSubscriber) {
        reader->subscribe(firstSubscriber.get());
    }
    reader->Init();
    return INotifierPtr(reader.release(), ReaderDeleter{firstSubscriber});
}

ISubscriberPtr SlotFactory::CreateSlotWriter(const ISlotConfiguration* cfg) {
    log4cxx::LoggerPtr logger = SlotLogger();
    CheckType(cfg);
    const std::string type = cfg->GetSlotType();
    if (type == SlotType::posixPipeTag) {
        if (logger->isInfoEnabled()) {
            LOG4CXX_INFO(logger, "Creating FStreamSubscriber for posix-pipe " << cfg->GetName());
        }
        const std::string path = CreatePipe(cfg);
        const SimpleFileOutputCfg outputCfg(path, false, false);
        const boost::function<std::string(shared::SizedArray&)> format = shared::FormatNothing;
        boost::shared_ptr<FileUtils::FSSAutoReopen> writer(
            new FileUtils::FSSAutoReopen(outputCfg, format));
        writer->SetWriteOutcomeName(cfg->GetName());
        // Should the pipe be removed before the opening, no file is made in its place.
        writer->SetNamedPipeOnly();
        writer->Reopen();
        return writer;
    }
    if (logger->isInfoEnabled()) {
        LOG4CXX_INFO(logger,
                     "Creating SlotWriter and "
                         << (type == SlotType::reliableTag ? "ReliableSlot" : "DiscardingSlot")
                         << " for " << cfg->GetName());
    }
    boost::shared_ptr<ISlot> slot = CreateSlot(cfg);
    return ISubscriberPtr(new SlotWriter(boost::shared_ptr<IBaseSlot>(slot)));
}
