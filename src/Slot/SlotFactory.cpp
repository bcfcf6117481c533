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

namespace SlotType = Configuration::Object::Slot::Type;

namespace {

log4cxx::LoggerPtr SlotLogger() {
    return log4cxx::Logger::getLogger("Slot");
}

// Refuses an invalid type, before anything is created.
void CheckType(const ISlotConfiguration* cfg) {
    if (!SlotFactory::SlotTypeIsValid(cfg->GetSlotType())) {
        throw AbortSlotCreationException("Invalid slot type " + cfg->GetSlotType());
    }
}

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
    if (cfg->GetSlotType() == SlotType::reliableTag) {
        return boost::shared_ptr<ISlot>(
            new ReliableSlot(boost::interprocess::open_or_create, name.c_str(),
                             static_cast<unsigned int>(cfg->GetMaxSize()),
                             static_cast<unsigned int>(cfg->GetMaxBufferLength())));
    }
    // Discarding, posix-pipe and the empty type: a one-block slot; the buffer length is not asked.
    return boost::shared_ptr<ISlot>(
        new DiscardingSlot(boost::interprocess::open_or_create, name.c_str(),
                           static_cast<unsigned int>(cfg->GetMaxSize())));
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
    log4cxx::LoggerPtr logger = SlotLogger();
    CheckType(cfg);
    const std::string type = cfg->GetSlotType();
    if (type == SlotType::posixPipeTag) {
        if (logger->isInfoEnabled()) {
            LOG4CXX_INFO(logger, "Creating FileReader for posix-pipe " << cfg->GetName());
        }
        const std::string path = CreatePipe(cfg);
        return INotifierPtr(new FileUtils::PosixFileReader(
            path, static_cast<unsigned int>(cfg->GetMaxSize()), cfg->GetUpdateTime()));
    }
    const bool reliable = type == SlotType::reliableTag;
    if (logger->isInfoEnabled()) {
        LOG4CXX_INFO(logger, "Creating "
                                 << (reliable ? "ReliableSlotReader" : "DiscardingSlotReader")
                                 << " for " << cfg->GetName());
    }
    boost::shared_ptr<ISlot> slot = CreateSlot(cfg);
    boost::shared_ptr<BaseSlotReader> reader;
    if (reliable) {
        reader.reset(new ReliableSlotReader(slot, cfg->GetUpdateTime()));
    } else {
        reader.reset(new DiscardingSlotReader(slot, cfg->GetUpdateTime()));
    }
    reader->Init();
    return reader;
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
