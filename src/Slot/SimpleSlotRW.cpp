// SPDX-License-Identifier: Apache-2.0
#include <Slot/SimpleSlotRW.h>

#include <Slot/ConfigurationTags.h>
#include <Slot/ISlotConfiguration.h>
#include <Slot/SlotFactory.h>

#include <shared/SizedArray.h>

namespace {

SimpleSlotCfg MakeConfiguration(const std::string& name) {
    return SimpleSlotCfg(name, Configuration::Object::Slot::Type::discardingTag,
                         boost::posix_time::microseconds(100000), 10);
}

const unsigned int BlockSize = 65536;

}  // namespace

SimpleSlotRW::SimpleSlotRW(const std::string& name) : name_(name) {}

std::string SimpleSlotRW::Read() {
    const SimpleSlotCfg cfg = MakeConfiguration(name_);
    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&cfg);
    shared::SizedArray buffer(BlockSize);
    const size_t n = slot->ReadData(buffer.data(), buffer.size());
    return std::string(buffer.data(), n);
}

void SimpleSlotRW::Write(const std::string& data) {
    const SimpleSlotCfg cfg = MakeConfiguration(name_);
    ISubscriberPtr writer = SlotFactory::CreateSlotWriter(&cfg);
    writer->onNotify(std::string(), data.data(), data.size());
}
