// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/ISubscriber.h>

#include <boost/function.hpp>

namespace shared {

// A subscriber that forwards each notification to a function.
class SHARED_EXPORT ProxySubscriber : public ISubscriber {
public:
    typedef boost::function<void(const std::string&, const void*, unsigned int)> Function;

    explicit ProxySubscriber(const Function& function) : function_(function) {}

    void onNotify(const std::string& name, const void* data, size_t size) override {
        function_(name, data, static_cast<unsigned int>(size));
    }

private:
    Function function_;
};

}  // namespace shared
