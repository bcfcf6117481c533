// SPDX-License-Identifier: Apache-2.0
#include <shared/SingletonMutex.h>

#include <boost/thread/mutex.hpp>

#include <map>

namespace shared {

namespace {

// Holders per name; entries are erased when their count drops to 0.
struct Registry {
    boost::mutex mutex;
    std::map<std::string, unsigned int> holders;  // guarded by mutex
};

Registry& GetRegistry() {
    static Registry* registry = new Registry;  // never destroyed: usable during static teardown
    return *registry;
}

}  // namespace

SingletonMutex::SingletonMutex(const std::string& name) : name_(name) {
    Registry& registry = GetRegistry();
    boost::mutex::scoped_lock lock(registry.mutex);
    ++registry.holders[name_];
}

SingletonMutex::~SingletonMutex() {
    Registry& registry = GetRegistry();
    boost::mutex::scoped_lock lock(registry.mutex);
    std::map<std::string, unsigned int>::iterator it = registry.holders.find(name_);
    if (it != registry.holders.end() && --it->second == 0) {
        registry.holders.erase(it);
    }
}

bool SingletonMutex::IsUnique() const {
    Registry& registry = GetRegistry();
    boost::mutex::scoped_lock lock(registry.mutex);
    std::map<std::string, unsigned int>::const_iterator it = registry.holders.find(name_);
    return it != registry.holders.end() && it->second == 1;
}

}  // namespace shared
