// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Dds.h>
#include <SlotGateway/Gateway.h>
#include <SlotGateway/Internal.h>
#include <SlotGateway/Route.h>

#include <dds/dds.h>
#include <log4cxx/logger.h>

#include <sys/random.h>
#include <unistd.h>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

namespace SlotGateway {

log4cxx::LoggerPtr Logger() {
    static log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("SlotGateway");
    return logger;
}

namespace {

std::uint64_t NewGatewayId() {
    std::uint64_t id = 0;
    if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id) || id == 0) {
        id = (static_cast<std::uint64_t>(getpid()) << 32) ^
             static_cast<std::uint64_t>(Clock::now().time_since_epoch().count()) ^ 1;
    }
    return id;
}

}  // namespace

struct Gateway::Impl {
    Config config;
    std::uint64_t id = NewGatewayId();
    StopFlag stop;
    std::map<std::uint32_t, dds_entity_t> participants;
    std::vector<std::unique_ptr<RouteRunner>> routes;
    std::thread control;
    std::once_flag stopped;

    void ControlLoop() {
        Clock::time_point nextStatus = Clock::now();
        while (!stop.set) {
            for (auto& route : routes) {
                route->Tick();
            }
            if (!config.statusFile.empty() && Clock::now() >= nextStatus) {
                WriteStatus();
                nextStatus = Clock::now() + std::chrono::milliseconds(config.statusIntervalMs);
            }
            stop.WaitFor(std::chrono::milliseconds(50));
        }
    }

    const Gateway* owner = nullptr;
    bool statusErrorLogged = false;  // control thread, then Stop()

    void WriteStatus();
};

Gateway::Gateway(const Config& config) : impl_(new Impl) {
    impl_->config = config;
    impl_->owner = this;
    if (!config.statusFile.empty()) {
        // Left by a gateway killed while it wrote the status file.
        RemoveStaleTemporaries(config.statusFile);
    }
    try {
        for (const Route& route : config.routes) {
            dds_entity_t& participant = impl_->participants[route.domain];
            if (participant == 0) {
                participant = CreateParticipant(route.domain, config.leaseMs);
            }
            const RouteEntities entities = CreateRouteEntities(participant, route);
            impl_->routes.emplace_back(new RouteRunner(
                route, impl_->id, entities.publisher, entities.subscriber, entities.topic,
                entities.ackTopic, impl_->stop, std::chrono::milliseconds(config.stopGraceMs)));
        }
    } catch (...) {
        impl_->stop.Raise();
        impl_->routes.clear();
        for (auto& participant : impl_->participants) {
            dds_delete(participant.second);
        }
        throw;
    }
    if (Logger()->isInfoEnabled()) {
        std::ostringstream id;
        id << std::hex << impl_->id;
        LOG4CXX_INFO(Logger(), "Gateway '" << config.gatewayName << "' (id " << id.str()
                                           << ") started with " << config.routes.size()
                                           << " slot(s)");
    }
    impl_->control = std::thread([this] { impl_->ControlLoop(); });
}

Gateway::~Gateway() {
    Stop();
    for (auto& participant : impl_->participants) {
        dds_delete(participant.second);
    }
}

void Gateway::Stop() {
    std::call_once(impl_->stopped, [this] {
        impl_->stop.Raise();
        if (impl_->control.joinable()) {
            impl_->control.join();
        }
        // Senders first: their blocks in hand may still go out; then the receivers drain. Every
        // slot reader is told first, so that none waits for another to end.
        for (auto& route : impl_->routes) {
            route->AskToStopSending();
        }
        for (auto& route : impl_->routes) {
            route->StopSending();
        }
        for (auto& route : impl_->routes) {
            route->StopReceiving();
        }
        if (!impl_->config.statusFile.empty()) {
            impl_->WriteStatus();
        }
        if (Logger()->isInfoEnabled()) {
            LOG4CXX_INFO(Logger(), "Gateway '" << impl_->config.gatewayName << "' stopped");
        }
    });
}

void Gateway::EndGrace() {
    impl_->stop.CutGrace();
}

std::vector<RouteStatus> Gateway::Status() const {
    std::vector<RouteStatus> result;
    for (const auto& route : impl_->routes) {
        result.push_back(route->Status());
    }
    return result;
}

std::uint64_t Gateway::Id() const {
    return impl_->id;
}

std::string Gateway::StatusJson() const {
    const std::vector<RouteStatus> routes = Status();
    return StatusDocument(impl_->config.gatewayName, impl_->id, impl_->stop.set.load(),
                          impl_->config.statusIntervalMs, routes);
}

void Gateway::Impl::WriteStatus() {
    const std::string error = WriteFileAtomically(config.statusFile, owner->StatusJson());
    if (!error.empty() && !statusErrorLogged) {
        statusErrorLogged = true;
        LOG4CXX_WARN(Logger(), "Status file not written: " << error);
    }
}

}  // namespace SlotGateway
