// SPDX-License-Identifier: Apache-2.0
#include <shared/ReaderNotifier.h>

#include <unistd.h>

namespace shared {

ReaderNotifier::ReaderNotifier() : pid_(::getpid()) {}

bool ReaderNotifier::Inherited() const {
    return ::getpid() != pid_;
}

void ReaderNotifier::subscribe(ISubscriber* subscriber) {
    if (!Inherited()) {
        Notifier::subscribe(subscriber);
    }
}

void ReaderNotifier::unsubscribe(ISubscriber* subscriber) {
    if (!Inherited()) {
        Notifier::unsubscribe(subscriber);
    }
}

void ReaderNotifier::unsubscribeAll() {
    if (!Inherited()) {
        Notifier::unsubscribeAll();
    }
}

bool ReaderNotifier::hasSubscribers() {
    return !Inherited() && Notifier::hasSubscribers();
}

}  // namespace shared
