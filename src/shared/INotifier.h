// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/ISubscriber.h>
#include <shared/SizedArray.h>

#include <string>

namespace shared {

// The publish side of publish/subscribe. The virtual operations keep this order, with the
// destructor last: readers built against it rely on the table's layout.
class INotifier {
public:
    virtual void subscribe(ISubscriber* subscriber) = 0;
    virtual void unsubscribe(ISubscriber* subscriber) = 0;
    virtual void unsubscribeAll() = 0;
    virtual void notify(const std::string& name, const void* data, unsigned int size) = 0;
    // Notifies the array's bytes under an empty name.
    virtual void notify(SizedArray* data) = 0;
    virtual ~INotifier() {}
};

}  // namespace shared
