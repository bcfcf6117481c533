// SPDX-License-Identifier: Apache-2.0
// The gateway's DDS plumbing: entities, their QoS and owners.
#pragma once

#include <SlotGateway/Config.h>

#include <dds/dds.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace SlotGateway {

// `entity`, or std::runtime_error "<what>: <DDS's text>" when it is a DDS error code.
dds_entity_t Check(dds_entity_t entity, const char* what);

// QoS of one route's reader (and, but for the history, writer). Reliable: every block is kept
// until the receiving side has room (KEEP_ALL bounded by the slot's queue length, blocking
// writes). Discarding: only the latest state, also for a gateway that joins later
// (TRANSIENT_LOCAL). Both ignore the participant's own entities, so a "both" route never hears
// itself.
dds_qos_t* RouteQos(const Route& route);
// QoS of one route's writer: RouteQos, but a reliable route's writer keeps only its latest
// sample (KEEP_LAST 1). The sender has one block in flight and publishes it again itself until
// acknowledged, so nothing older is needed; and a reliable reader that is not a gateway and
// never acknowledges (a monitoring tool that does not take) cannot fill the writer's history
// and block its writes. History is not a policy that readers and writers must agree on: peers
// of earlier versions match as before.
dds_qos_t* RouteWriterQos(const Route& route);

// QoS of a reliable route's acknowledgements (receiving gateway -> sending gateway).
dds_qos_t* AckQos();

// QoS of a publisher or subscriber in `partition` ("" is DDS's default partition).
dds_qos_t* PartitionQos(const std::string& partition);

struct QosDeleter {
    void operator()(dds_qos_t* qos) const { dds_delete_qos(qos); }
};
using QosPtr = std::unique_ptr<dds_qos_t, QosDeleter>;

// A participant in `domain`, with a lease of `leaseMs`; throws std::runtime_error.
dds_entity_t CreateParticipant(std::uint32_t domain, unsigned leaseMs);

// What one route uses of its domain's participant; all owned by the participant.
struct RouteEntities {
    dds_entity_t topic = 0;
    dds_entity_t ackTopic = 0;  // reliable routes only
    dds_entity_t publisher = 0;
    dds_entity_t subscriber = 0;
};

// Creates a route's topics, publisher and subscriber; throws std::runtime_error.
RouteEntities CreateRouteEntities(dds_entity_t participant, const Route& route);

struct Matches {
    std::uint32_t current = 0;
    std::uint32_t total = 0;  // ever matched
};

// The readers matched by `writer` (none when DDS cannot tell).
Matches PublicationMatches(dds_entity_t writer);

// A DDS entity's network-wide identity. Unlike what a sample says about itself, DDS vouches for it.
using Guid = std::array<std::uint8_t, 16>;

// The writer that published a sample `reader` received (the sample's publication handle);
// nullopt once DDS no longer knows the writer.
std::optional<Guid> WriterOf(dds_entity_t reader, dds_instance_handle_t publication);

// Sets `handles` to the remote endpoints `entity` matches now: the readers of a writer
// (`ofWriter`), or the writers of a reader. A negative DDS return code when DDS cannot tell.
dds_return_t MatchedHandles(dds_entity_t entity, bool ofWriter,
                            std::vector<dds_instance_handle_t>& handles);

// Says once per route, at WARN, that a peer's endpoint on the route's topic cannot match the
// route's writer or reader because a QoS policy differs (the other host's entry for the topic
// has another type), which DDS otherwise keeps to itself: the two never exchange a block.
class QosMismatchWarning {
public:
    explicit QosMismatchWarning(const Route& route) : slot_(route.name), topic_(route.topic) {}
    QosMismatchWarning(const QosMismatchWarning&) = delete;
    QosMismatchWarning& operator=(const QosMismatchWarning&) = delete;

    // Adds this warning's callback to the listener of `entity` (a writer, or a reader), keeping
    // its other callbacks, and warns for a mismatch DDS saw before. The callback stays until the
    // entity's listener is removed, which the owner does before this object goes.
    void Watch(dds_entity_t entity, bool writer);

private:
    static void OnOffered(dds_entity_t, const dds_offered_incompatible_qos_status_t status,
                          void* self);
    static void OnRequested(dds_entity_t, const dds_requested_incompatible_qos_status_t status,
                            void* self);
    void Warn(std::uint32_t policy);

    const std::string slot_;
    const std::string topic_;
    std::atomic<bool> warned_{false};
};

// The participants of the remote endpoints an entity matches: the readers of a writer, or the
// writers of a reader. A listener learns each endpoint's participant while DDS makes the match
// (for a reader, before the writer's first sample can reach it), so that no endpoint goes
// unnoticed however briefly it stays; one that left is remembered until Forget(), since DDS
// forgets it at once while a sample it sent may still wait to be taken. Thread-safe.
class MatchedPeers {
public:
    // Sets `entity`'s listener (its only one) and learns the endpoints matched already.
    MatchedPeers(dds_entity_t entity, bool ofWriter);
    // Removes the listener, after a call of it in progress.
    ~MatchedPeers();
    MatchedPeers(const MatchedPeers&) = delete;
    MatchedPeers& operator=(const MatchedPeers&) = delete;

    // The participant of endpoint `handle`, matched now or since the last Forget().
    std::optional<Guid> ParticipantOf(dds_instance_handle_t handle) const;
    // The participants of the endpoints matched now.
    std::set<Guid> Matched() const;
    // The endpoints matched now, with their participants.
    std::map<dds_instance_handle_t, Guid> MatchedEndpoints() const;
    // `participant` had an endpoint matched now or since the last Forget().
    bool Knows(const Guid& participant) const;
    // Forgets the endpoints that have left.
    void Forget();

private:
    struct Peer {
        Guid participant;
        bool matched;
    };

    static void OnPublicationMatched(dds_entity_t writer,
                                     const dds_publication_matched_status_t status, void* self);
    static void OnSubscriptionMatched(dds_entity_t reader,
                                      const dds_subscription_matched_status_t status, void* self);
    // Asks DDS about endpoint `handle`: matched (and whose), or gone.
    void Learn(dds_instance_handle_t handle);

    const dds_entity_t entity_;
    const bool ofWriter_;
    mutable std::mutex mutex_;
    std::map<dds_instance_handle_t, Peer> peers_;  // guarded by mutex_
};

}  // namespace SlotGateway
