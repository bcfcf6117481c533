// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Dds.h>
#include <SlotGateway/Internal.h>

#include "GatewayBlock.h"

#include <cstring>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace SlotGateway {

dds_entity_t Check(dds_entity_t entity, const char* what) {
    if (entity < 0) {
        throw std::runtime_error(std::string(what) + ": " + dds_strretcode(entity));
    }
    return entity;
}

dds_qos_t* RouteQos(const Route& route) {
    dds_qos_t* qos = dds_create_qos();
    if (route.reliable()) {
        const int32_t depth = static_cast<int32_t>(route.queueLength);
        dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
        dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
        dds_qset_resource_limits(qos, depth, DDS_LENGTH_UNLIMITED, depth);
        dds_qset_durability(qos, DDS_DURABILITY_VOLATILE);
    } else {
        dds_qset_reliability(qos, DDS_RELIABILITY_BEST_EFFORT, 0);
        dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, 1);
        dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
    }
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);
    return qos;
}

dds_qos_t* RouteWriterQos(const Route& route) {
    dds_qos_t* qos = RouteQos(route);
    if (route.reliable()) {
        dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, 1);
        dds_qset_resource_limits(qos, 1, DDS_LENGTH_UNLIMITED, 1);
    }
    return qos;
}

dds_qos_t* AckQos() {
    dds_qos_t* qos = dds_create_qos();
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, 64);
    // Discovery matches each pair of endpoints on its own: a restarted receiver can get a block
    // from the sender before its acknowledgement writer knows the sender's acknowledgement
    // reader. Its recent acknowledgements therefore stay with the writer and reach a reader that
    // matches late; a volatile one would be lost, and the sender would wait for it forever.
    dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);
    return qos;
}

dds_qos_t* PartitionQos(const std::string& partition) {
    dds_qos_t* qos = dds_create_qos();
    if (!partition.empty()) {
        dds_qset_partition1(qos, partition.c_str());
    }
    return qos;
}

dds_entity_t CreateParticipant(std::uint32_t domain, unsigned leaseMs) {
    // The participant's liveliness is its lease: how soon peers notice a crash.
    QosPtr participantQos(dds_create_qos());
    dds_qset_liveliness(participantQos.get(), DDS_LIVELINESS_AUTOMATIC, DDS_MSECS(leaseMs));
    return Check(dds_create_participant(domain, participantQos.get(), nullptr),
                 "dds_create_participant");
}

RouteEntities CreateRouteEntities(dds_entity_t participant, const Route& route) {
    RouteEntities entities;
    QosPtr partition(PartitionQos(route.partition));
    entities.topic = Check(dds_create_topic(participant, &SlotGatewayWire_Block_desc,
                                            route.topic.c_str(), nullptr, nullptr),
                           "dds_create_topic");
    // A reliable route also carries acknowledgements back, on "<topic>/ack".
    if (route.reliable()) {
        entities.ackTopic =
            Check(dds_create_topic(participant, &SlotGatewayWire_Block_desc,
                                   (route.topic + "/ack").c_str(), nullptr, nullptr),
                  "dds_create_topic");
    }
    entities.publisher =
        Check(dds_create_publisher(participant, partition.get(), nullptr), "dds_create_publisher");
    entities.subscriber = Check(dds_create_subscriber(participant, partition.get(), nullptr),
                                "dds_create_subscriber");
    return entities;
}

Matches PublicationMatches(dds_entity_t writer) {
    dds_publication_matched_status_t status;
    Matches matches;
    if (dds_get_publication_matched_status(writer, &status) == DDS_RETCODE_OK) {
        matches.current = status.current_count;
        matches.total = status.total_count;
    }
    return matches;
}

namespace {

Guid ToGuid(const dds_guid_t& guid) {
    Guid result;
    static_assert(sizeof guid.v == sizeof(Guid), "a DDS GUID has 16 bytes");
    std::memcpy(result.data(), guid.v, result.size());
    return result;
}

std::optional<Guid> PublicationGuid(dds_entity_t reader, dds_instance_handle_t publication,
                                    bool participant) {
    dds_builtintopic_endpoint_t* endpoint = dds_get_matched_publication_data(reader, publication);
    if (endpoint == nullptr) {
        return std::nullopt;
    }
    const Guid guid = ToGuid(participant ? endpoint->participant_key : endpoint->key);
    dds_builtintopic_free_endpoint(endpoint);
    return guid;
}

}  // namespace

std::optional<Guid> WriterOf(dds_entity_t reader, dds_instance_handle_t publication) {
    return PublicationGuid(reader, publication, false);
}

dds_return_t MatchedHandles(dds_entity_t entity, bool ofWriter,
                            std::vector<dds_instance_handle_t>& handles) {
    handles.resize(16);
    for (;;) {
        // DDS says how many there are, also when they do not fit.
        const dds_return_t n =
            ofWriter ? dds_get_matched_subscriptions(entity, handles.data(), handles.size())
                     : dds_get_matched_publications(entity, handles.data(), handles.size());
        if (n < 0) {
            handles.clear();
            return n;
        }
        const bool fitted = static_cast<std::size_t>(n) <= handles.size();
        handles.resize(static_cast<std::size_t>(n));
        if (fitted) {
            return n;
        }
    }
}

namespace {

// The name of a QoS policy DDS reports as the reason two endpoints do not match.
std::string PolicyName(std::uint32_t policy) {
    switch (policy) {
        case DDS_RELIABILITY_QOS_POLICY_ID:
            return "reliability";
        case DDS_DURABILITY_QOS_POLICY_ID:
            return "durability";
        case DDS_HISTORY_QOS_POLICY_ID:
            return "history";
        case DDS_RESOURCELIMITS_QOS_POLICY_ID:
            return "resource limits";
        case DDS_DEADLINE_QOS_POLICY_ID:
            return "deadline";
        case DDS_LATENCYBUDGET_QOS_POLICY_ID:
            return "latency budget";
        case DDS_OWNERSHIP_QOS_POLICY_ID:
            return "ownership";
        case DDS_LIVELINESS_QOS_POLICY_ID:
            return "liveliness";
        case DDS_PRESENTATION_QOS_POLICY_ID:
            return "presentation";
        case DDS_DESTINATIONORDER_QOS_POLICY_ID:
            return "destination order";
        case DDS_DATA_REPRESENTATION_QOS_POLICY_ID:
            return "data representation";
        case DDS_TYPE_CONSISTENCY_ENFORCEMENT_QOS_POLICY_ID:
            return "type consistency";
        default:
            return "QoS policy " + std::to_string(policy);
    }
}

}  // namespace

void QosMismatchWarning::Watch(dds_entity_t entity, bool writer) {
    dds_listener_t* listener = dds_create_listener(nullptr);
    dds_get_listener(entity, listener);
    if (writer) {
        dds_lset_offered_incompatible_qos_arg(listener, &QosMismatchWarning::OnOffered, this, true);
    } else {
        dds_lset_requested_incompatible_qos_arg(listener, &QosMismatchWarning::OnRequested, this,
                                                true);
    }
    const dds_return_t rc = dds_set_listener(entity, listener);
    dds_delete_listener(listener);
    if (rc != DDS_RETCODE_OK) {
        LOG4CXX_WARN(Logger(), "Slot '" << slot_ << "': QoS mismatches on topic '" << topic_
                                        << "' go unreported: " << dds_strretcode(rc));
    }
    // A mismatch found before the callback was set.
    if (writer) {
        dds_offered_incompatible_qos_status_t status;
        if (dds_get_offered_incompatible_qos_status(entity, &status) == DDS_RETCODE_OK &&
            status.total_count > 0) {
            Warn(status.last_policy_id);
        }
    } else {
        dds_requested_incompatible_qos_status_t status;
        if (dds_get_requested_incompatible_qos_status(entity, &status) == DDS_RETCODE_OK &&
            status.total_count > 0) {
            Warn(status.last_policy_id);
        }
    }
}

void QosMismatchWarning::OnOffered(dds_entity_t, const dds_offered_incompatible_qos_status_t status,
                                   void* self) {
    static_cast<QosMismatchWarning*>(self)->Warn(status.last_policy_id);
}

void QosMismatchWarning::OnRequested(dds_entity_t,
                                     const dds_requested_incompatible_qos_status_t status,
                                     void* self) {
    static_cast<QosMismatchWarning*>(self)->Warn(status.last_policy_id);
}

void QosMismatchWarning::Warn(std::uint32_t policy) {
    if (warned_.exchange(true)) {
        return;
    }
    LOG4CXX_WARN(Logger(), "Slot '" << slot_ << "' does not match a peer on topic '" << topic_
                                    << "': the other host's entry differs: " << PolicyName(policy));
}

MatchedPeers::MatchedPeers(dds_entity_t entity, bool ofWriter)
    : entity_(entity), ofWriter_(ofWriter) {
    // Other callbacks of the entity (a QosMismatchWarning's) are kept.
    dds_listener_t* listener = dds_create_listener(nullptr);
    dds_get_listener(entity_, listener);
    if (ofWriter_) {
        dds_lset_publication_matched_arg(listener, &MatchedPeers::OnPublicationMatched, this, true);
    } else {
        dds_lset_subscription_matched_arg(listener, &MatchedPeers::OnSubscriptionMatched, this,
                                          true);
    }
    const dds_return_t rc = dds_set_listener(entity_, listener);
    dds_delete_listener(listener);
    Check(rc, "dds_set_listener");
    // Matches made before the listener was set.
    std::vector<dds_instance_handle_t> handles;
    Check(MatchedHandles(entity_, ofWriter_, handles),
          ofWriter_ ? "dds_get_matched_subscriptions" : "dds_get_matched_publications");
    for (const dds_instance_handle_t handle : handles) {
        Learn(handle);
    }
}

MatchedPeers::~MatchedPeers() {
    dds_set_listener(entity_, nullptr);
}

void MatchedPeers::OnPublicationMatched(dds_entity_t, const dds_publication_matched_status_t status,
                                        void* self) {
    static_cast<MatchedPeers*>(self)->Learn(status.last_subscription_handle);
}

void MatchedPeers::OnSubscriptionMatched(dds_entity_t,
                                         const dds_subscription_matched_status_t status,
                                         void* self) {
    static_cast<MatchedPeers*>(self)->Learn(status.last_publication_handle);
}

void MatchedPeers::Learn(dds_instance_handle_t handle) {
    // Asked under the lock: whichever of the listener and the constructor asks last sees the
    // latest state, so a departed endpoint is never taken for matched.
    std::lock_guard<std::mutex> guard(mutex_);
    dds_builtintopic_endpoint_t* endpoint = ofWriter_
                                                ? dds_get_matched_subscription_data(entity_, handle)
                                                : dds_get_matched_publication_data(entity_, handle);
    if (endpoint == nullptr) {
        const auto known = peers_.find(handle);
        if (known != peers_.end()) {
            known->second.matched = false;
        }
        return;
    }
    peers_[handle] = Peer{ToGuid(endpoint->participant_key), true};
    dds_builtintopic_free_endpoint(endpoint);
}

std::optional<Guid> MatchedPeers::ParticipantOf(dds_instance_handle_t handle) const {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto known = peers_.find(handle);
    if (known == peers_.end()) {
        return std::nullopt;
    }
    return known->second.participant;
}

std::set<Guid> MatchedPeers::Matched() const {
    std::lock_guard<std::mutex> guard(mutex_);
    std::set<Guid> participants;
    for (const auto& peer : peers_) {
        if (peer.second.matched) {
            participants.insert(peer.second.participant);
        }
    }
    return participants;
}

std::map<dds_instance_handle_t, Guid> MatchedPeers::MatchedEndpoints() const {
    std::lock_guard<std::mutex> guard(mutex_);
    std::map<dds_instance_handle_t, Guid> endpoints;
    for (const auto& peer : peers_) {
        if (peer.second.matched) {
            endpoints.emplace(peer.first, peer.second.participant);
        }
    }
    return endpoints;
}

bool MatchedPeers::Knows(const Guid& participant) const {
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& peer : peers_) {
        if (peer.second.participant == participant) {
            return true;
        }
    }
    return false;
}

void MatchedPeers::Forget() {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto it = peers_.begin(); it != peers_.end();) {
        it = it->second.matched ? std::next(it) : peers_.erase(it);
    }
}

}  // namespace SlotGateway
