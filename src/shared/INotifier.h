// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/ISubscriber.h>
#include <shared/SizedArray.h>

#include <string>

namespace shared {

class INotifier {
public:
    virtual ~INotifier() {}
    virtual void subscribe(ISubscriber* subscriber) = 0;
    virtual void unsubscribe(ISubscriber* subscriber) = 0;
    virtual void unsubscribeAll() = 0;
    virtual void notify(const std::string& name, const void* data, unsigned int size) = 0;
    // Notifies the array's bytes under an empty name.
    virtual void notify(SizedArray* data) = 0;
};

}  // namespace shared
