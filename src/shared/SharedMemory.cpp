// SPDX-License-Identifier: Apache-2.0
#include <shared/SharedMemory.h>

#include <boost/interprocess/shared_memory_object.hpp>

namespace shared {

namespace {

class SharedMemory : public ISharedMemory {
public:
    SharedMemory(const char* name, unsigned int size)
        : name_(name),
          segment_(boost::interprocess::open_or_create, name, size, nullptr,
                   boost::interprocess::permissions(0644)),
          mutex_(segment_.find_or_construct<boost::interprocess::interprocess_mutex>(
              boost::interprocess::unique_instance)()) {}

    std::string GetName() const override { return name_; }
    SlotSegment& GetSegment() override { return segment_; }
    boost::interprocess::interprocess_mutex* GetMutex() override { return mutex_; }

private:
    std::string name_;
    SlotSegment segment_;
    boost::interprocess::interprocess_mutex* mutex_;  // in the segment; never destroyed here
};

}  // namespace

ISharedMemory* CreateSharedMemory(boost::interprocess::open_or_create_t, const char* name,
                                  unsigned int size) {
    return new SharedMemory(name, size);
}

void DestroySharedMemory(ISharedMemory* memory) {
    delete memory;
}

bool RemoveSharedMemory(const char* name) {
    return !boost::interprocess::shared_memory_object::remove(name);
}

}  // namespace shared
