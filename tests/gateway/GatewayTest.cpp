// SPDX-License-Identifier: Apache-2.0
// Two gateways in one process: DDS delivers between their participants as between hosts, while
// both ends are slots of this machine with different names. A receiver that goes away or is
// killed, blocks held while none is matched, a stop on SIGTERM and a latest pool are the cases
// of two_hosts.sh.
#include "Files.h"
#include "NumberedBlock.h"

#include <SlotGateway/Dds.h>
#include <SlotGateway/Gateway.h>
#include <SlotGateway/Route.h>
#include <SlotGateway/SlotClaim.h>
#include <SlotGateway/Status.h>

#include <SlotGateway/Wire.h>

#include "../Slot/PoolTestSupport.h"

#include <ChildProcess.h>
#include <Collector.h>
#include <Eventually.h>
#include <LogCapture.h>
#include <ShmHygiene.h>
#include <ShmObject.h>
#include <Slot/PoolFactory.h>
#include <Slot/SlotFactory.h>
#include <Slot/SlotSurvey.h>
#include <Slot/SlotWriter.h>
#include <Slot/WriteOutcome.h>

#include <gtest/gtest.h>
#include <shared/FileLock.h>
#include <shared/UtcClock.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

using namespace SlotGateway;
using namespace std::chrono_literals;
using Bytes = std::vector<unsigned char>;

namespace {

// Keeps DDS on the loopback interface, without multicast, so test runs do not reach the
// network; each test also uses a partition of its own.
const int kLoopback =
    setenv("CYCLONEDDS_URI",
           "<CycloneDDS><Domain><General><Interfaces><NetworkInterface name=\"lo\"/>"
           "</Interfaces><AllowMulticast>false</AllowMulticast></General>"
           "<Discovery><ParticipantIndex>auto</ParticipantIndex><MaxAutoParticipantIndex>60"
           "</MaxAutoParticipantIndex><Peers><Peer address=\"127.0.0.1\"/></Peers></Discovery>"
           "</Domain></CycloneDDS>",
           1);

// A route of a slot ("reliable", "discarding") or a pool ("queue", "latest").
Route MakeRoute(const std::string& name, const std::string& type, Direction direction,
                const std::string& partition, const std::string& topic, std::size_t maxSize,
                std::size_t queueLength) {
    const bool pool = type == "queue" || type == "latest";
    Route route;
    route.name = name;
    route.type = pool ? "" : type;
    route.pool = pool ? type : "";
    route.direction = direction;
    route.partition = partition;
    route.topic = topic;
    route.maxSize = maxSize;
    route.queueLength = queueLength;
    // A discarding reader passes on only states younger than the update time: generous, so that
    // a slow wake-up on a loaded machine does not make the gateway miss a state.
    route.updateTimeMs = type == "discarding" ? 500 : 20;
    return route;
}

Config OneRoute(const Route& route) {
    Config config;
    config.source = "test";
    config.gatewayName = route.name;
    config.stopGraceMs = 2000;
    config.routes.push_back(route);
    return config;
}

// True once every route of `gateway` sends and, with `matched`, sees one reader.
bool Sending(const Gateway& gateway, bool matched = true) {
    for (const RouteStatus& route : gateway.Status()) {
        if (!route.sending || (matched && route.matchedReaders != 1)) {
            return false;
        }
    }
    return true;
}

// The counters of the first route of `gateway`.
RouteCounters Counts(const Gateway& gateway) {
    return gateway.Status()[0].counters;
}

using gatewaytest::NumberedBlock;
using testsupport::Collector;
using testsupport::Eventually;

// The blocks `collector` received, as bytes.
std::vector<Bytes> BlocksOf(const Collector& collector) {
    std::vector<Bytes> blocks;
    for (const Collector::Block& block : collector.Blocks()) {
        blocks.emplace_back(block.bytes.begin(), block.bytes.end());
    }
    return blocks;
}

// What `slot` gives next (up to 512 bytes): text, or Bytes.
template <typename T = std::string>
T ReadFrom(ISlot& slot) {
    char buffer[512];
    return T(buffer, buffer + slot.ReadData(buffer, sizeof buffer));
}

// `collector` gets blocks 0..total-1 of a numbered run, each once, in order.
void ExpectNumbered(Collector& collector, unsigned total, std::size_t maxSize) {
    ASSERT_TRUE(collector.WaitFor(total, 90s))
        << collector.Count() << " of " << total << " arrived";
    const std::vector<Bytes> blocks = BlocksOf(collector);
    ASSERT_EQ(blocks.size(), total);
    for (unsigned n = 0; n < total; ++n) {
        ASSERT_EQ(blocks[n], NumberedBlock(n, maxSize)) << "block " << n;
    }
}

// Writes into a reliable slot, waiting while it is full (the gateway's back-pressure).
void WriteHeld(const ISubscriberPtr& writer, const std::string& name, const Bytes& block) {
    const auto end = std::chrono::steady_clock::now() + 60s;
    for (;;) {
        writer->onNotify(name, block.data(), block.size());
        if (Slot::LastWriteOutcome() == Slot::WriteOutcome::Stored) {
            return;
        }
        ASSERT_EQ(Slot::LastWriteOutcome(), Slot::WriteOutcome::Refused);
        ASSERT_LT(std::chrono::steady_clock::now(), end) << "the slot stayed full";
        std::this_thread::sleep_for(1ms);
    }
}

// Writes blocks first..end-1 of a numbered run, each held as WriteHeld does.
void WriteNumbered(const ISubscriberPtr& writer, const std::string& name, unsigned first,
                   unsigned end, std::size_t maxSize) {
    for (unsigned n = first; n < end && !::testing::Test::HasFatalFailure(); ++n) {
        WriteHeld(writer, name, NumberedBlock(n, maxSize));
    }
}

// The two ends of a link of `type` on a partition of its own: `source` (slots, or pools for
// "queue" and "latest") to the network, the network into `destination`; named after `stem`,
// removed afterwards. Read() gives a reader of the destination that feeds `received`.
struct Ends {
    Ends(const std::string& stem, const std::string& type, std::size_t maxSize,
         std::size_t outLength, std::size_t inLength)
        : pool(type == "queue" || type == "latest"),
          slotSource(stem + "_src"),
          slotDestination(stem + "_dst"),
          poolSource(stem + "_psrc"),
          poolDestination(stem + "_pdst"),
          source(pool ? poolSource.str() : slotSource.str()),
          destination(pool ? poolDestination.str() : slotDestination.str()),
          partition(testsupport::UniqueName("part")),
          out(MakeRoute(source, type, Direction::ToNetwork, partition, "t", maxSize, outLength)),
          in(MakeRoute(destination, type, Direction::FromNetwork, partition, "t", maxSize,
                       inLength)),
          sourceCfg(out),
          destinationCfg(in) {}

    // A writer of the source, or of the destination with `intoDestination`.
    ISubscriberPtr Writer(bool intoDestination = false) const {
        const Route& route = intoDestination ? in : out;
        return pool ? Slot::PoolFactory::CreatePoolWriter(RoutePoolCfg(route))
                    : SlotFactory::CreateSlotWriter(intoDestination ? &destinationCfg : &sourceCfg);
    }
    INotifierPtr Read() const {
        return pool ? Slot::PoolFactory::CreatePoolReader(RoutePoolCfg(in), received)
                    : SlotFactory::CreateSlotReader(&destinationCfg, received);
    }

    const bool pool;
    const testsupport::ScopedSlotName slotSource, slotDestination;
    const pooltest::ScopedPool poolSource, poolDestination;
    const std::string source, destination, partition;
    Route out, in;
    const RouteSlotCfg sourceCfg, destinationCfg;
    const boost::shared_ptr<Collector> received{new Collector};
};

// Anything else on the DDS domain: publishes samples of the gateway's own type on a route's topic
// and acknowledgement topic, saying whatever it likes about whose they are; with `reads`, it also
// reads the route's blocks without ever acknowledging one, as a monitoring tool would.
class HostilePeer {
public:
    explicit HostilePeer(const Route& route, bool reads = false) {
        participant_ = CreateParticipant(route.domain, 500);
        const RouteEntities entities = CreateRouteEntities(participant_, route);
        QosPtr qos(RouteQos(route)), ackQos(AckQos());
        writer_ = Check(dds_create_writer(entities.publisher, entities.topic, qos.get(), nullptr),
                        "dds_create_writer");
        if (reads) {
            reader_ =
                Check(dds_create_reader(entities.subscriber, entities.topic, qos.get(), nullptr),
                      "dds_create_reader");
        } else if (route.reliable()) {
            ackWriter_ = Check(
                dds_create_writer(entities.publisher, entities.ackTopic, ackQos.get(), nullptr),
                "dds_create_writer");
        }
    }
    ~HostilePeer() { dds_delete(participant_); }
    HostilePeer(const HostilePeer&) = delete;
    HostilePeer& operator=(const HostilePeer&) = delete;

    // A block claiming to be block `serial` of gateway `gateway`, received once this returns.
    void PublishBlock(std::uint64_t gateway, std::uint64_t serial, const Bytes& data) {
        Publish(writer_, gateway, serial, data.data(), data.size());
    }
    // An acknowledgement of block `serial` of gateway `gateway`, claiming that gateway `receiver`
    // stored it; received once this returns.
    void PublishAck(std::uint64_t gateway, std::uint64_t serial, std::uint64_t receiver) {
        Publish(ackWriter_, gateway, serial, &receiver, sizeof receiver);
    }

private:
    static void Publish(dds_entity_t writer, std::uint64_t gateway, std::uint64_t serial,
                        const void* data, std::size_t size) {
        ASSERT_TRUE(Eventually([&] { return PublicationMatches(writer).current >= 1; }, 20s));
        SlotGatewayWire_Block sample = WireSample(gateway, serial, data, size);
        ASSERT_EQ(dds_write(writer, &sample), DDS_RETCODE_OK);
        ASSERT_EQ(dds_wait_for_acks(writer, DDS_SECS(20)), DDS_RETCODE_OK);
    }

    dds_entity_t participant_ = 0;
    dds_entity_t writer_ = 0;
    dds_entity_t reader_ = 0;
    dds_entity_t ackWriter_ = 0;
};

// A configuration file of `routes`, in the run's folder.
std::string GatewayConfigFile(const std::vector<Route>& routes, unsigned leaseMs,
                              unsigned stopGraceMs) {
    const std::string config =
        testsupport::TestRunDir() + "/" + testsupport::UniqueName("gw") + ".json";
    nlohmann::json slots = nlohmann::json::array();
    for (const Route& route : routes) {
        slots.push_back({{"name", route.name},
                         {"type", route.type},
                         {"max_size", route.maxSize},
                         {"queue_length", route.queueLength},
                         {"direction", ToString(route.direction)},
                         {"partition", route.partition},
                         {"topic", route.topic}});
    }
    std::ofstream(config) << nlohmann::json{
        {"gateway", {{"name", "child"}, {"lease_ms", leaseMs}, {"stop_grace_ms", stopGraceMs}}},
        {"slots", slots}};
    return config;
}

// slot-gateway run with `args` in a process of its own, its standard output and error into
// `output` (made anew); killed (SIGKILL) at the end of the test, and with the test process.
std::unique_ptr<testsupport::ChildProcess> RunGateway(std::vector<std::string> args,
                                                      const std::string& output = "/dev/null") {
    args.insert(args.begin(), SLOT_GATEWAY_PATH);
    return std::unique_ptr<testsupport::ChildProcess>(new testsupport::ChildProcess([args, output] {
        testsupport::DieWithParent();
        const int out = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        std::vector<char*> argv;
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        return 127;
    }));
}

// slot-gateway in a process of its own, run with a configuration of `routes`.
std::unique_ptr<testsupport::ChildProcess> StartGateway(const std::vector<Route>& routes,
                                                        unsigned leaseMs,
                                                        unsigned stopGraceMs = 5000) {
    return RunGateway(
        {"--config", GatewayConfigFile(routes, leaseMs, stopGraceMs), "--timeout", "300"});
}

// Overwrites the shared-memory object `name` (a slot's header) with 0xFF, as a stray writer
// would, and puts the bytes back on Restore or destruction.
class DamagedObject {
public:
    explicit DamagedObject(const std::string& name)
        : name_(name),
          saved_(testsupport::ReadObject(name)),
          damaged_(!saved_.empty() && testsupport::WriteObject(name, Bytes(saved_.size(), 0xFF))) {}
    ~DamagedObject() { Restore(); }

    bool damaged() const { return damaged_; }
    void Restore() { damaged_ = damaged_ && !testsupport::WriteObject(name_, saved_); }
    // The object was removed: its name may name a new one, which is left alone.
    void Removed() { damaged_ = false; }

private:
    const std::string name_;
    const Bytes saved_;
    bool damaged_;
};

}  // namespace

// Cases run on a reliable slot and on a queue pool, carried like one.
class GatewaySlotOrPool : public ::testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(SlotAndPool, GatewaySlotOrPool, ::testing::Values("reliable", "queue"));

// Every block arrives once, in order, byte for byte, 0 bytes to the maximum size; a full
// destination holds the source back instead of losing blocks.
TEST_P(GatewaySlotOrPool, CarriesEveryBlockAndHoldsBackWhenFull) {
    const bool pool = GetParam() == "queue";
    const std::size_t maxSize = 70000;
    const Ends ends("gw", GetParam(), maxSize, pool ? 8 : 32, 4);
    ISubscriberPtr writer = ends.Writer();
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));
    // Nobody reads the destination yet: it fills, the receiving gateway retries, DDS fills, and
    // the sending gateway stops taking from the source.
    const unsigned held = pool ? 12 : 20, total = pool ? 120 : 300;
    WriteNumbered(writer, ends.source, 0, held, maxSize);
    ASSERT_TRUE(Eventually([&] { return Counts(receiving).refused >= 1; }, 30s));
    EXPECT_EQ(Counts(receiving).dropped, 0u);

    INotifierPtr reader = ends.Read();
    WriteNumbered(writer, ends.source, held, total, maxSize);
    ExpectNumbered(*ends.received, total, maxSize);
    reader.reset();
    const RouteCounters sent = Counts(sending), got = Counts(receiving);
    EXPECT_EQ(sent.forwarded, total);
    EXPECT_EQ(got.received, total);
    EXPECT_GE(got.retried, got.refused);
    EXPECT_EQ(sent.dropped + got.dropped + got.duplicates, 0u);
    EXPECT_TRUE(sending.Status()[0].sending);
    EXPECT_NE(
        sending.StatusJson().find(std::string("\"type\": \"") + (pool ? "queue pool" : "reliable")),
        std::string::npos);
}

// A slot or pool removed and made again by its application between two blocks is another
// object: the receiving gateway stores the next block into the new one (not into the removed
// one, acknowledged, where nobody reads it), and says so once. The sending gateway of a slot
// reads the new source too.
TEST_P(GatewaySlotOrPool, ASlotRemovedAndMadeAgainIsWrittenAndReadAnew) {
    const bool pool = GetParam() == "queue";
    const Ends ends("gw_renew", GetParam(), 64, 8, 8);
    ISubscriberPtr writer = ends.Writer();
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));
    INotifierPtr reader = ends.Read();
    WriteHeld(writer, ends.source, NumberedBlock(0, 64));
    ASSERT_TRUE(ends.received->WaitFor(1, 30s)) << receiving.StatusJson();
    reader.reset();

    testsupport::LogCapture log("SlotGateway");
    if (pool) {
        ASSERT_TRUE(Slot::PoolFactory::RemovePool(ends.destination));
    } else {
        ASSERT_TRUE(SlotFactory::RemoveSlot(ends.destination));
    }
    ends.Writer(true);  // made again
    const boost::shared_ptr<Collector> renewed(new Collector);
    reader = pool ? Slot::PoolFactory::CreatePoolReader(RoutePoolCfg(ends.in), renewed)
                  : SlotFactory::CreateSlotReader(&ends.destinationCfg, renewed);
    WriteHeld(writer, ends.source, NumberedBlock(1, 64));
    ASSERT_TRUE(renewed->WaitFor(1, 30s)) << receiving.StatusJson();
    EXPECT_EQ(BlocksOf(*renewed), std::vector<Bytes>{NumberedBlock(1, 64)});
    // Counted once the write returned, after the reader may have had it.
    EXPECT_TRUE(Eventually([&] { return Counts(receiving).received == 2; }, 20s))
        << receiving.StatusJson();
    EXPECT_EQ(log.CountPrefix("INFO", (pool ? "Pool '" : "Slot '") + ends.destination +
                                          "' was removed or made again"),
              1u);
    if (pool) {
        return;
    }
    ASSERT_TRUE(SlotFactory::RemoveSlot(ends.source));
    writer = ends.Writer();  // makes it again
    WriteHeld(writer, ends.source, NumberedBlock(2, 64));
    ASSERT_TRUE(renewed->WaitFor(2, 30s)) << sending.StatusJson();
    EXPECT_EQ(BlocksOf(*renewed).back(), NumberedBlock(2, 64));
    EXPECT_TRUE(Eventually([&] { return Sending(sending); }, 20s)) << sending.StatusJson();
}

// Hosts whose entries for a topic differ in type never match, and DDS keeps it to itself: each
// gateway says so once per slot at WARN, naming the policy that differs, not once per sample or
// per repetition of a state.
TEST(Gateway, EntriesThatDifferBetweenHostsAreReportedOnce) {
    const Ends discardingOut("gw_qos_a", "discarding", 64, 1, 1);
    const Ends reliableOut("gw_qos_b", "reliable", 64, 4, 4);
    Route in = MakeRoute(discardingOut.destination, "reliable", Direction::FromNetwork,
                         discardingOut.partition, "qos_a", 64, 4);
    Route out = discardingOut.out;
    out.topic = "qos_a";
    Route in2 = MakeRoute(reliableOut.destination, "discarding", Direction::FromNetwork,
                          discardingOut.partition, "qos_b", 64, 1);
    Route out2 = reliableOut.out;
    out2.partition = discardingOut.partition;
    out2.topic = "qos_b";
    testsupport::LogCapture log("SlotGateway");
    Config receivingConfig = OneRoute(in), sendingConfig = OneRoute(out);
    receivingConfig.routes.push_back(in2);
    sendingConfig.routes.push_back(out2);
    Gateway receiving(receivingConfig);
    Gateway sending(sendingConfig);
    ISubscriberPtr writer = discardingOut.Writer();
    const std::vector<std::pair<Route, std::string>> expected = {
        {out, "reliability"}, {in, "reliability"}, {out2, "durability"}, {in2, "durability"}};
    auto warning = [](const std::pair<Route, std::string>& entry) {
        return "Slot '" + entry.first.name + "' does not match a peer on topic '" +
               entry.first.topic + "': the other host's entry differs: " + entry.second;
    };
    const auto allReported = [&] {
        return std::all_of(expected.begin(), expected.end(), [&](const auto& entry) {
            return log.Count("WARN", warning(entry)) > 0;
        });
    };
    ASSERT_TRUE(Eventually(allReported, 30s)) << testing::PrintToString(log.Messages("WARN"));
    for (int n = 0; n < 5; ++n) {
        writer->onNotify(discardingOut.source, "state", 5);
        std::this_thread::sleep_for(300ms);
    }
    for (const auto& entry : expected) {
        EXPECT_EQ(log.Count("WARN", warning(entry)), 1u) << entry.first.name;
    }
    EXPECT_EQ(Counts(receiving).received, 0u);
}

// A discarding slot's latest state reaches a gateway that starts later.
TEST(Gateway, DiscardingDeliversLatestStateToLateJoiner) {
    const Ends ends("gw_state", "discarding", 512, 1, 1);
    ISubscriberPtr writer = ends.Writer();
    Gateway sending(OneRoute(ends.out));
    // The slot's reader passes on only states younger than the update time: it must run before
    // they are written, also on a loaded machine.
    ASSERT_TRUE(Eventually([&] { return sending.Status()[0].sending; }, 20s));
    for (unsigned n = 1; n <= 50; ++n) {
        const std::string state = "state " + std::to_string(n);
        writer->onNotify(ends.source, state.data(), state.size());
        std::this_thread::sleep_for(2ms);
    }
    ASSERT_TRUE(Eventually([&] { return Counts(sending).forwarded >= 1; }, 10s));
    // Let the last state be published before the receiver exists.
    const std::string last = "state 50";
    ASSERT_TRUE(Eventually(
        [&] {
            const auto before = Counts(sending).forwarded;
            std::this_thread::sleep_for(100ms);
            return Counts(sending).forwarded == before;
        },
        10s));
    Gateway receiving(OneRoute(ends.in));
    boost::shared_ptr<ISlot> copy = SlotFactory::CreateSlot(&ends.destinationCfg);
    std::string seen;
    ASSERT_TRUE(Eventually([&] { return (seen = ReadFrom(*copy)) == last; }, 15s))
        << "last seen: '" << seen << "'";
    EXPECT_EQ(Counts(receiving).dropped, 0u);
}

// Two gateways mirroring one discarding state both ways: each state crosses once, never back (a
// gateway's reader of its slot skips what the gateway stored there as an echo). A gateway that
// stored a state from the network no longer offers its own older one: after A's X and then B's
// Z, a restarted B is not given X (from A's history or its repetitions), and the newest state on
// both sides stays Z. (Opening a discarding slot forgets its last block: the restarted gateway's
// opening shows there as an empty state.)
TEST(Gateway, BothWaysNoEchoAndARestartedPeerKeepsTheNewestState) {
    testsupport::ScopedSlotName left("gw_left_restart"), right("gw_right_restart");
    const std::string partition = testsupport::UniqueName("part");
    const Route a =
        MakeRoute(left, "discarding", Direction::Both, partition, "restart_state", 64, 1);
    const Route b =
        MakeRoute(right, "discarding", Direction::Both, partition, "restart_state", 64, 1);
    RouteSlotCfg leftCfg(a), rightCfg(b);
    boost::shared_ptr<ISlot> leftSlot = SlotFactory::CreateSlot(&leftCfg);
    boost::shared_ptr<ISlot> rightSlot = SlotFactory::CreateSlot(&rightCfg);
    boost::shared_ptr<Collector> leftStates(new Collector), rightStates(new Collector);
    INotifierPtr leftReader = SlotFactory::CreateSlotReader(&leftCfg, leftStates);
    INotifierPtr rightReader = SlotFactory::CreateSlotReader(&rightCfg, rightStates);
    Gateway gatewayA(OneRoute(a));
    std::unique_ptr<Gateway> gatewayB(new Gateway(OneRoute(b)));
    ASSERT_TRUE(Eventually([&] { return Sending(gatewayA) && Sending(*gatewayB); }, 20s));

    // Written as a writer does: locked, then the write condition notified. B stores X, and its
    // own reader of the right slot sees it: skipped, not sent back.
    const std::string x = "X from the left", z = "Z from the right";
    SlotWriter(leftSlot).onNotify("", x.data(), x.size());
    ASSERT_TRUE(Eventually([&] { return Counts(*gatewayB).echoes == 1; }, 20s))
        << gatewayA.StatusJson() << gatewayB->StatusJson();
    SlotWriter(rightSlot).onNotify("", z.data(), z.size());
    ASSERT_TRUE(Eventually([&] { return Counts(gatewayA).echoes == 1; }, 20s))
        << gatewayA.StatusJson() << gatewayB->StatusJson();
    std::this_thread::sleep_for(300ms);  // room for a wrong echo
    for (const Gateway* gateway : {&gatewayA, gatewayB.get()}) {
        EXPECT_EQ(Counts(*gateway).forwarded, 1u) << gateway->StatusJson();
        EXPECT_EQ(Counts(*gateway).received, 1u) << gateway->StatusJson();
    }

    // The old gateway leaves before the new one starts, as a restarted process does: in one
    // process the two would match at once, and the old one's history would reach the new one.
    gatewayB.reset();
    gatewayB.reset(new Gateway(OneRoute(b)));
    ASSERT_TRUE(Eventually([&] { return Sending(gatewayA) && Sending(*gatewayB); }, 20s));
    // Room for A's history and its repetitions after the new match (1 s apart at most).
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(Counts(*gatewayB).received, 0u) << gatewayB->StatusJson();
    auto newest = [](const Collector& states) {
        std::string last;
        for (const Bytes& state : BlocksOf(states)) {
            if (!state.empty()) {
                last.assign(state.begin(), state.end());
            }
        }
        return last;
    };
    EXPECT_EQ(newest(*leftStates), z);
    EXPECT_EQ(newest(*rightStates), z);
}

// A received state that the destination refuses (a latest pool whose blocks are all loaned) was
// not written: when the same bytes are written there later, they are a local state, sent on.
TEST(Gateway, BothWaysRefusedStateIsNoEchoLater) {
    pooltest::ScopedPool left("gw_left_refused"), right("gw_right_refused");
    const std::string partition = testsupport::UniqueName("part");
    Route a = MakeRoute(left.str(), "latest", Direction::Both, partition, "refused_state", 64, 2);
    Route b = MakeRoute(right.str(), "latest", Direction::Both, partition, "refused_state", 64, 2);
    // Echo entries then live 20 s: longer than this test could take to write the same bytes.
    a.updateTimeMs = b.updateTimeMs = 5000;
    boost::shared_ptr<Slot::PoolWriter> rightWriter =
        Slot::PoolFactory::CreatePoolWriter(RoutePoolCfg(b));
    std::vector<Slot::PoolLoan> loans;
    for (int n = 0; n < 2; ++n) {
        loans.push_back(rightWriter->loan(64));
        ASSERT_TRUE(loans.back());
    }
    Gateway gatewayA(OneRoute(a));
    Gateway gatewayB(OneRoute(b));
    ASSERT_TRUE(Eventually([&] { return Sending(gatewayA) && Sending(gatewayB); }, 20s));
    const std::string state = "same bytes";
    ISubscriberPtr leftWriter = Slot::PoolFactory::CreatePoolWriter(RoutePoolCfg(a));
    leftWriter->onNotify(left.str(), state.data(), state.size());
    ASSERT_TRUE(Eventually([&] { return Counts(gatewayB).refused == 1; }, 20s))
        << gatewayA.StatusJson() << gatewayB.StatusJson();

    loans.clear();
    rightWriter->onNotify(right.str(), state.data(), state.size());
    ASSERT_TRUE(Eventually([&] { return Counts(gatewayB).forwarded == 1; }, 20s))
        << gatewayA.StatusJson() << gatewayB.StatusJson();
    EXPECT_EQ(Counts(gatewayB).echoes, 0u);
}

// The status file is whole JSON with the counters, and its table names every slot.
TEST(Gateway, StatusFileWrittenAtomically) {
    testsupport::ScopedSlotName slot("gw_status");
    Route route = MakeRoute(slot, "discarding", Direction::FromNetwork,
                            testsupport::UniqueName("part"), "status_topic", 64, 1);
    Config config = OneRoute(route);
    config.statusFile = testsupport::TestRunDir() + "/gateway-status.json";
    config.statusIntervalMs = 20;
    Gateway(config).Stop();
    const std::string text = testsupport::ReadFile(config.statusFile);
    const std::time_t now = std::time(nullptr);
    const std::string table = FormatStatus(text, now);
    EXPECT_NE(table.find(slot.str()), std::string::npos) << table;
    EXPECT_NE(table.find("from-network"), std::string::npos) << table;
    EXPECT_NE(text.find("\"stopped\": true"), std::string::npos);
    // The table says when the writer is gone (a reaped child's pid) or the file is older than
    // three write intervals; a fresh file of a live writer gets neither note.
    nlohmann::json document = nlohmann::json::parse(text);
    char stamp[32] = {};
    std::tm utc;
    gmtime_r(&now, &utc);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
    document["time"] = stamp;
    const auto firstLine = [&](std::time_t at) {
        const std::string shown = FormatStatus(document.dump(), at);
        return shown.substr(0, shown.find('\n'));
    };
    EXPECT_EQ(firstLine(now).find(" ago"), std::string::npos) << firstLine(now);
    EXPECT_EQ(firstLine(now).find("not running"), std::string::npos) << firstLine(now);
    EXPECT_NE(firstLine(now + 100).find(", stopped (last written 100 s ago)"), std::string::npos)
        << firstLine(now + 100);
    testsupport::ChildProcess child([] { return 0; });
    ASSERT_TRUE(child.Wait().Ok());
    document["pid"] = child.Pid();
    EXPECT_NE(firstLine(now + 100).find(", stopped (not running)"), std::string::npos)
        << firstLine(now + 100);
    std::remove(config.statusFile.c_str());
    // A symlink planted at the temporary name is not followed.
    const std::string target = testsupport::TestRunDir() + "/gateway-target";
    const std::string link = config.statusFile + ".tmp." + std::to_string(getpid());
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    EXPECT_EQ(WriteFileAtomically(config.statusFile, "{}"), "");
    EXPECT_NE(access(target.c_str(), F_OK), 0);
    std::remove(config.statusFile.c_str());
    std::remove(link.c_str());
    // Nor is a file someone else has at that name removed or written.
    { std::ofstream(link) << "theirs"; }
    EXPECT_EQ(WriteFileAtomically(config.statusFile, "{}"), "");
    EXPECT_EQ(testsupport::ReadFile(link), "theirs");
    std::remove(link.c_str());
    std::remove(config.statusFile.c_str());
    // A symlink in the folder part is not followed either.
    const std::string real = testsupport::TestRunDir() + "/gateway-real";
    const std::string via = testsupport::TestRunDir() + "/gateway-via";
    ASSERT_EQ(mkdir(real.c_str(), 0755), 0);
    ASSERT_EQ(symlink(real.c_str(), via.c_str()), 0);
    EXPECT_EQ(WriteFileAtomically(via + "/status.json", "{}").rfind("Unsafe folder", 0), 0u);
    EXPECT_NE(access((real + "/status.json").c_str(), F_OK), 0);
    std::remove(via.c_str());
    rmdir(real.c_str());
    // A temporary left by a gateway killed mid-write goes at the next start; a symlink of that
    // form, or a name of another form, stays.
    const std::string stale = config.statusFile + ".tmp.Ab3dE9";
    const std::string other = config.statusFile + ".tmp.Ab3dE9x";
    const std::string planted = config.statusFile + ".tmp.Zz9yX8";
    { std::ofstream(stale) << "{"; }
    { std::ofstream(other) << "mine"; }
    ASSERT_EQ(symlink(target.c_str(), planted.c_str()), 0);
    Gateway(config).Stop();
    EXPECT_NE(access(stale.c_str(), F_OK), 0);
    EXPECT_EQ(testsupport::ReadFile(other), "mine");
    EXPECT_EQ(unlink(planted.c_str()), 0);
    std::remove(other.c_str());
    std::remove(config.statusFile.c_str());
}

// Five blocks into a reliable route whose destination, read by nobody, holds block 0 and
// refuses block 1, which stays in the sending gateway's hand. Acknowledgements of block 1 from a
// participant that reads none of the route's blocks do not count, whatever receiver they name.
// The receiving gateway stops within its grace, block 1 unstored; when the sending gateway
// stops, the block in hand is back at the head of the slot: the next reader gets the blocks in
// their order.
TEST(GatewayHostile, ForgedAcknowledgementsLeaveTheBlockInHandToGoBackToTheHead) {
    const Ends ends("gw_back", "reliable", 512, 8, 1);
    ISubscriberPtr writer = ends.Writer();
    boost::shared_ptr<ISlot> slot = SlotFactory::CreateSlot(&ends.sourceCfg);
    boost::shared_ptr<ISlot> destinationSlot = SlotFactory::CreateSlot(&ends.destinationCfg);
    Config sendingConfig = OneRoute(ends.out), receivingConfig = OneRoute(ends.in);
    sendingConfig.stopGraceMs = 300;
    receivingConfig.stopGraceMs = 200;

    Gateway sending(sendingConfig);
    std::unique_ptr<Gateway> receiving(new Gateway(receivingConfig));
    WriteNumbered(writer, ends.source, 0, 5, 512);
    EXPECT_TRUE(Eventually([&] { return Counts(*receiving).refused >= 1; }, 30s));
    EXPECT_EQ(slot->GetBufferLength(), 3u);  // blocks 2..4; block 1 is in the sender's hand
    {
        // Block 1 (serial 2) "stored" by the real receiving gateway, and by one not there.
        HostilePeer foe(ends.out);
        foe.PublishAck(sending.Id(), 2, receiving->Id());
        foe.PublishAck(sending.Id(), 2, 42);
    }
    receiving.reset();
    EXPECT_TRUE(Eventually([&] { return sending.Status()[0].matchedReaders == 0; }, 30s));
    sending.Stop();
    EXPECT_EQ(slot->GetBufferLength(), 4u);
    for (unsigned n = 1; n < 5 && slot->GetBufferLength() != 0; ++n) {
        EXPECT_EQ(ReadFrom<Bytes>(*slot), NumberedBlock(n, 512)) << "block " << n;
    }
    EXPECT_EQ(Counts(sending).forwarded, 1u);
    EXPECT_EQ(Counts(sending).dropped, 0u);
}

// The sending gateway stops while the receiving gateway has its block but cannot store it (its
// slot stays full): the block was not stored, so it is not counted as forwarded. A slot's block
// goes back to the head of the source slot, and the receiving gateway, stopped with its slot
// still full, leaves it to its sender: it arrives once both gateways run again and the
// destination is read. A pool cannot take a block back: it is counted as dropped and logged.
TEST_P(GatewaySlotOrPool, StoppedBeforeTheBlockIsStoredItGoesBackOrIsCountedDropped) {
    const Ends ends("gw_unstored", GetParam(), 512, 8, 1);
    ISubscriberPtr writer = ends.Writer();
    ISubscriberPtr occupier = ends.Writer(true);
    const Bytes occupant = {'o', 'l', 'd'};
    WriteHeld(occupier, ends.destination, occupant);  // the destination's one place is taken
    Config sendingConfig = OneRoute(ends.out), receivingConfig = OneRoute(ends.in);
    sendingConfig.stopGraceMs = 500;
    receivingConfig.stopGraceMs = 200;
    testsupport::LogCapture log("SlotGateway");

    std::unique_ptr<Gateway> receiving(new Gateway(receivingConfig));
    std::unique_ptr<Gateway> sending(new Gateway(sendingConfig));
    WriteHeld(writer, ends.source, NumberedBlock(0, 512));
    ASSERT_TRUE(Eventually([&] { return Counts(*receiving).refused >= 1; }, 30s))
        << receiving->StatusJson();
    sending->Stop();
    const RouteCounters sent = Counts(*sending);
    EXPECT_EQ(sent.forwarded, 0u);
    sending.reset();
    receiving->Stop();
    EXPECT_EQ(Counts(*receiving).received, 0u);
    EXPECT_EQ(Counts(*receiving).dropped, 0u);
    receiving.reset();
    if (ends.pool) {
        EXPECT_EQ(sent.dropped, 1u);
        EXPECT_EQ(log.Count("ERROR", "Block 1 of pool '" + ends.source +
                                         "' dropped: no receiver stored it while the gateway "
                                         "stopped"),
                  1u);
        return;
    }
    EXPECT_EQ(sent.dropped, 0u);
    EXPECT_EQ(log.Count("WARN", "No receiver stored block 1 of slot '" + ends.source +
                                    "' while stopping: put back at the head of the slot"),
              1u);
    EXPECT_EQ(SlotFactory::CreateSlot(&ends.sourceCfg)->GetBufferLength(), 1u);

    INotifierPtr reader = ends.Read();
    Gateway receivingAgain(receivingConfig);
    Gateway sendingAgain(sendingConfig);
    ASSERT_TRUE(ends.received->WaitFor(2, 30s))
        << receivingAgain.StatusJson() << sendingAgain.StatusJson();
    EXPECT_EQ(BlocksOf(*ends.received), (std::vector<Bytes>{occupant, NumberedBlock(0, 512)}));
    EXPECT_TRUE(Eventually([&] { return Counts(sendingAgain).forwarded == 1; }, 20s));
}

// A receiving gateway that stops while it has a block it could not store (its slot full) leaves
// with it unstored: the sending gateway, a process of its own, puts the block back at the head of
// its slot at once instead of keeping it, so that a SIGKILL of the sender loses nothing. Both
// started again, every block arrives once, in order.
TEST(Gateway, AReceiverThatLeavesLeavesNoBlockInTheSendersHand) {
    const Ends ends("gw_left", "reliable", 512, 8, 1);
    ISubscriberPtr writer = ends.Writer();
    boost::shared_ptr<ISlot> source = SlotFactory::CreateSlot(&ends.sourceCfg);
    const Bytes occupant = {'o', 'l', 'd'};
    WriteHeld(ends.Writer(true), ends.destination, occupant);
    Config receivingConfig = OneRoute(ends.in);
    receivingConfig.stopGraceMs = 200;

    std::unique_ptr<Gateway> receiving(new Gateway(receivingConfig));
    auto sending = StartGateway({ends.out}, 500);
    WriteNumbered(writer, ends.source, 0, 4, 512);
    ASSERT_TRUE(Eventually([&] { return Counts(*receiving).refused >= 1; }, 30s))
        << receiving->StatusJson();
    ASSERT_EQ(source->GetBufferLength(), 3u);  // block 0 is in the sender's hand
    receiving.reset();
    ASSERT_TRUE(Eventually([&] { return source->GetBufferLength() == 4; }, 20s))
        << "the block stayed in the sender's hand";
    sending->Kill();
    sending->Wait();

    INotifierPtr reader = ends.Read();
    Gateway receivingAgain(receivingConfig);
    sending = StartGateway({ends.out}, 500);
    ASSERT_TRUE(ends.received->WaitFor(5, 30s)) << receivingAgain.StatusJson();
    std::this_thread::sleep_for(300ms);  // time for a repeated block to show
    std::vector<Bytes> expected = {occupant};
    for (unsigned n = 0; n < 4; ++n) {
        expected.push_back(NumberedBlock(n, 512));
    }
    EXPECT_EQ(BlocksOf(*ends.received), expected);
}

// The same when the writer filled the slot before the receiver left: the block does not fit
// back and stays in hand only until the slot has room again, then goes back to the head.
TEST(Gateway, ABlockThatDoesNotFitBackGoesBackOnceThereIsRoom) {
    const Ends ends("gw_nofit", "reliable", 512, 2, 1);
    ISubscriberPtr writer = ends.Writer();
    boost::shared_ptr<ISlot> source = SlotFactory::CreateSlot(&ends.sourceCfg);
    WriteHeld(ends.Writer(true), ends.destination, Bytes{'o'});
    Config receivingConfig = OneRoute(ends.in);
    receivingConfig.stopGraceMs = 200;

    std::unique_ptr<Gateway> receiving(new Gateway(receivingConfig));
    Gateway sending(OneRoute(ends.out));
    WriteNumbered(writer, ends.source, 0, 3, 512);
    ASSERT_TRUE(Eventually([&] { return Counts(*receiving).refused >= 1; }, 30s));
    receiving.reset();
    ASSERT_TRUE(Eventually([&] { return sending.Status()[0].matchedReaders == 0; }, 30s));
    testsupport::LogCapture slotLog("Slot");
    std::this_thread::sleep_for(200ms);  // a few tries to put the block back
    ASSERT_EQ(source->GetBufferLength(), 2u);
    // The slot's refusal is not repeated on every try (it once flooded the log).
    EXPECT_LE(slotLog.Count("WARN", "Queue in '" + ends.source +
                                        "' is full, the data was not "
                                        "written"),
              1u);
    EXPECT_EQ(ReadFrom<Bytes>(*source), NumberedBlock(1, 512));  // room for one
    ASSERT_TRUE(Eventually([&] { return source->GetBufferLength() == 2; }, 20s))
        << "the block stayed in the sender's hand";
    EXPECT_EQ(ReadFrom<Bytes>(*source), NumberedBlock(0, 512));
    EXPECT_EQ(ReadFrom<Bytes>(*source), NumberedBlock(2, 512));
    EXPECT_EQ(Counts(sending).dropped, 0u);
}

// A stopping sender whose block in hand has no receiver waits out its grace asleep: a slot's
// block (its slot full, so it cannot go back), a pool's in the pool reader's callback. The
// process's CPU time over the grace stays far below the grace (a busy wait takes a whole core).
TEST_P(GatewaySlotOrPool, AStoppingSenderWaitsOutItsGraceAsleep) {
    const Ends ends("gw_asleep", GetParam(), 512, 1, 1);
    ISubscriberPtr writer = ends.Writer();
    WriteHeld(ends.Writer(true), ends.destination, Bytes{'o'});
    Config sendingConfig = OneRoute(ends.out), receivingConfig = OneRoute(ends.in);
    sendingConfig.stopGraceMs = 3000;
    receivingConfig.stopGraceMs = 200;

    std::unique_ptr<Gateway> receiving(new Gateway(receivingConfig));
    Gateway sending(sendingConfig);
    WriteHeld(writer, ends.source, NumberedBlock(0, 512));
    ASSERT_TRUE(Eventually([&] { return Counts(*receiving).refused >= 1; }, 30s));
    if (!ends.pool) {
        WriteHeld(writer, ends.source, NumberedBlock(1, 512));  // the slot is full
    }
    receiving.reset();
    ASSERT_TRUE(Eventually([&] { return sending.Status()[0].matchedReaders == 0; }, 30s));

    auto cpu = [] {
        timespec now{};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    };
    const auto cpuBefore = cpu();
    const auto start = std::chrono::steady_clock::now();
    sending.Stop();
    const auto took = std::chrono::steady_clock::now() - start;
    const auto used = cpu() - cpuBefore;
    EXPECT_GE(took, 2500ms);  // the grace was waited out
    EXPECT_LT(used, 1000ms) << std::chrono::duration_cast<std::chrono::milliseconds>(used).count()
                            << " ms of CPU in "
                            << std::chrono::duration_cast<std::chrono::milliseconds>(took).count()
                            << " ms";
    EXPECT_EQ(Counts(sending).dropped, 1u);
}

// A discarding slot's states cross, an empty one too (it has a write time, unlike no state);
// the reliable slot's empty blocks are in the numbered run above.
TEST(Gateway, DiscardingStatesCrossEmptyOnesToo) {
    const Ends ends("gw_empty_state", "discarding", 64, 1, 1);
    ISubscriberPtr writer = ends.Writer();
    INotifierPtr reader = ends.Read();
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));

    // A state is sent once the sending gateway reads the slot; the empty one follows it.
    ASSERT_TRUE(Eventually([&] { return sending.Status()[0].sending; }, 20s));
    const Bytes first = {'x'};
    writer->onNotify(ends.source, first.data(), first.size());
    ASSERT_TRUE(ends.received->WaitFor(1, 30s));
    writer->onNotify(ends.source, nullptr, 0);
    ASSERT_TRUE(ends.received->WaitFor(2, 30s));
    EXPECT_EQ(BlocksOf(*ends.received), (std::vector<Bytes>{first, Bytes{}}));
    EXPECT_EQ(Counts(sending).dropped + Counts(receiving).dropped, 0u);
}

// A latest pool's newest block reaches the other side's pool (also where the two-host test
// cannot run: it needs root and network namespaces).
TEST(Gateway, LatestPoolCarriesTheLatestBlock) {
    const Ends ends("gw_latest", "latest", 512, 4, 4);
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));
    ASSERT_TRUE(Eventually([&] { return Sending(sending); }, 20s));
    INotifierPtr reader = ends.Read();
    ISubscriberPtr writer = ends.Writer();
    const std::string last = "state 20";
    for (unsigned n = 1; n <= 20; ++n) {
        const std::string state = "state " + std::to_string(n);
        writer->onNotify(ends.source, state.data(), state.size());
    }
    ASSERT_TRUE(Eventually(
        [&] {
            const std::vector<Bytes> blocks = BlocksOf(*ends.received);
            return !blocks.empty() && blocks.back() == Bytes(last.begin(), last.end());
        },
        20s))
        << sending.StatusJson() << receiving.StatusJson();
    EXPECT_EQ(Counts(sending).dropped + Counts(receiving).dropped, 0u);
}

// A queue pool is not read while no receiver is matched: a gateway that stops without one leaves

// A queue pool is not read while no receiver is matched: a gateway that stops without one leaves
// the pool whole, and blocks written while the receiver is gone reach the next one in order.
TEST(Gateway, QueuePoolKeepsItsBlocksWhileNoReceiverIsMatched) {
    const Ends ends("gw_pool_gone", "queue", 1024, 16, 16);
    ISubscriberPtr writer = ends.Writer();
    WriteHeld(writer, ends.source, NumberedBlock(0, 1024));
    {
        Gateway alone(OneRoute(ends.out));
        std::this_thread::sleep_for(300ms);  // time to (wrongly) take
        EXPECT_FALSE(alone.Status()[0].sending);
    }

    INotifierPtr reader = ends.Read();
    Gateway sending(OneRoute(ends.out));
    std::unique_ptr<Gateway> receiving(new Gateway(OneRoute(ends.in)));
    ASSERT_TRUE(ends.received->WaitFor(1, 30s));
    receiving.reset();
    ASSERT_TRUE(Eventually([&] { return sending.Status()[0].matchedReaders == 0; }, 30s));
    WriteNumbered(writer, ends.source, 1, 6, 1024);
    receiving.reset(new Gateway(OneRoute(ends.in)));
    ExpectNumbered(*ends.received, 6, 1024);
    EXPECT_EQ(Counts(sending).dropped, 0u);
}

// Samples from others on the domain that name a real sending gateway cannot make the receiving
// gateway take that gateway's later blocks for repetitions, whatever serial they carry. And
// their reader of the topic (it never acknowledges, unlike a gateway) does not hold the sender
// back: a block is done once every receiving gateway stored it.
TEST(GatewayHostile, ForeignSerialsAndReadersDoNotHideOrStallTheSendersBlocks) {
    const Ends ends("gw_foe", "reliable", 512, 8, 8);
    ISubscriberPtr writer = ends.Writer();
    INotifierPtr reader = ends.Read();
    HostilePeer foe(ends.out, true);
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));
    ASSERT_TRUE(Eventually([&] { return sending.Status()[0].matchedReaders == 2; }, 20s));
    WriteHeld(writer, ends.source, NumberedBlock(0, 512));
    ASSERT_TRUE(ends.received->WaitFor(1, 30s));

    // Far ahead, and at the end of the serials' range.
    const Bytes forged = {'f', 'o', 'e'};
    foe.PublishBlock(sending.Id(), (std::uint64_t(1) << 63) + 1, forged);
    foe.PublishBlock(sending.Id(), UINT64_MAX, forged);
    ASSERT_TRUE(ends.received->WaitFor(3, 30s));
    WriteNumbered(writer, ends.source, 1, 4, 512);
    ASSERT_TRUE(Eventually([&] { return Counts(sending).forwarded == 4; }, 30s))
        << sending.StatusJson();
    ASSERT_TRUE(ends.received->WaitFor(6, 10s))
        << ends.received->Count() << " blocks stored; " << receiving.StatusJson();
    EXPECT_EQ(BlocksOf(*ends.received),
              (std::vector<Bytes>{NumberedBlock(0, 512), forged, forged, NumberedBlock(1, 512),
                                  NumberedBlock(2, 512), NumberedBlock(3, 512)}));
}

// A reliable reader that is not a gateway and never takes a sample, with room for two (a
// monitoring tool that stalled, in a process of its own), does not throttle the route: the
// sending gateway's writes are never held back waiting for its acknowledgements.
TEST(GatewayHostile, AReaderThatNeverTakesDoesNotThrottleTheRoute) {
    const std::size_t maxSize = 65536;  // what DDS keeps unacknowledged soon exceeds its limit
    const Ends ends("gw_stalled", "reliable", maxSize, 8, 8);
    const std::string domain = std::to_string(ends.out.domain);
    testsupport::ChildProcess monitor([&] {
        testsupport::DieWithParent();
        const int quiet = ::open("/dev/null", O_WRONLY);
        ::dup2(quiet, STDOUT_FILENO);
        ::execl(GATEWAY_PROBE_PATH, GATEWAY_PROBE_PATH, "stalled-reader", domain.c_str(),
                ends.partition.c_str(), ends.out.topic.c_str(), "300", static_cast<char*>(nullptr));
        return 127;
    });
    ISubscriberPtr writer = ends.Writer();
    INotifierPtr reader = ends.Read();
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));
    ASSERT_TRUE(Eventually([&] { return sending.Status()[0].matchedReaders == 2; }, 20s));
    const unsigned total = 60;
    const auto start = std::chrono::steady_clock::now();
    WriteNumbered(writer, ends.source, 0, total, maxSize);
    ExpectNumbered(*ends.received, total, maxSize);
    // Held back, each write waited 1 s for the monitor: most of a minute.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
    EXPECT_EQ(Counts(sending).retried, 0u);
}

// A destination slot that exists with a smaller maximum size than the route's cannot take a
// larger block, ever: it is dropped, and the blocks behind it arrive.
TEST(Gateway, BlockLargerThanTheExistingSlotIsDroppedNotRetriedForever) {
    const Ends ends("gw_big", "reliable", 512, 8, 8);
    Route smaller = ends.in;
    smaller.maxSize = 64;
    const RouteSlotCfg smallerCfg(smaller);
    boost::shared_ptr<ISlot> existing = SlotFactory::CreateSlot(&smallerCfg);
    INotifierPtr reader = SlotFactory::CreateSlotReader(&smallerCfg, ends.received);
    ISubscriberPtr writer = ends.Writer();
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));
    const Bytes large(100, 'L'), small(10, 's');
    WriteHeld(writer, ends.source, large);
    WriteHeld(writer, ends.source, small);
    ASSERT_TRUE(ends.received->WaitFor(1, 20s)) << receiving.StatusJson();
    EXPECT_EQ(BlocksOf(*ends.received), std::vector<Bytes>{small});
    EXPECT_EQ(Counts(receiving).dropped, 1u);
}

// One gateway per machine writes a slot: a second one that would write it (from the network or
// both ways) is refused at its start with the holder named; one that only sends it is not. The
// claim ends with the gateway, and its file goes with it.
TEST(GatewayClaim, ASlotIsWrittenByOneGatewayPerMachine) {
    testsupport::ScopedSlotName slot("gw_claimed");
    const std::string partition = testsupport::UniqueName("part");
    const std::string lockFile = SlotClaim::PathOf(slot);
    auto route = [&](Direction direction, const std::string& topic) {
        return OneRoute(MakeRoute(slot, "discarding", direction, partition, topic, 64, 1));
    };
    std::unique_ptr<Gateway> first(new Gateway(route(Direction::FromNetwork, "claim_in")));
    const std::string refusal = "slot '" + std::string(slot) +
                                "' is already written by another gateway on this machine (pid " +
                                std::to_string(::getpid()) + ", lock file '" + lockFile + "')";
    try {
        Gateway second(route(Direction::Both, "claim_both"));
        ADD_FAILURE() << "a second gateway wrote the slot";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(e.what(), refusal);
    }
    Gateway sender(route(Direction::ToNetwork, "claim_out"));
    first.reset();
    EXPECT_NE(::access(lockFile.c_str(), F_OK), 0) << lockFile;
    Gateway again(route(Direction::Both, "claim_both"));
}

// A gateway killed while it writes the slot leaves no claim behind: the next one starts.
TEST(GatewayClaim, AKilledGatewaysClaimEndsWithIt) {
    testsupport::ScopedSlotName slot("gw_claim_killed");
    const Route in = MakeRoute(slot, "reliable", Direction::FromNetwork,
                               testsupport::UniqueName("part"), "claim_killed", 64, 4);
    const auto child = StartGateway({in}, 500);
    const std::string lockFile = SlotClaim::PathOf(slot);
    // Killed once it has started: a creator killed inside a slot's creation leaves an unfinished
    // slot, which the library does not take over.
    ASSERT_TRUE(Eventually(
        [&] {
            return shared::FileLock::Holder(lockFile) == child->Pid() &&
                   SlotSurvey::InspectSlot(slot).state == SlotState::Healthy;
        },
        30s))
        << "the gateway never claimed " << lockFile << " and made its slot";
    EXPECT_THROW(Gateway(OneRoute(in)), std::runtime_error);
    child->Kill();
    child->Wait();
    Gateway successor(OneRoute(in));
    EXPECT_EQ(shared::FileLock::Holder(lockFile), ::getpid());
}

// --log-config reads a file ending in ".xml" as log4cxx XML, as slotctl does (read as properties,
// it would set nothing up); a file that cannot be read is a usage error, said in one line.
TEST(GatewayProgram, ReadsAnXmlLogConfiguration) {
    testsupport::ScopedSlotName slot("gw_log_xml");
    const std::string config =
        GatewayConfigFile({MakeRoute(slot, "reliable", Direction::FromNetwork,
                                     testsupport::UniqueName("part"), "log_xml", 64, 4)},
                          500, 0);
    const std::string base = testsupport::TestRunDir() + "/" + testsupport::UniqueName("gwlog");
    std::string xml = R"(<?xml version="1.0"?>
<log4j:configuration xmlns:log4j="http://jakarta.apache.org/log4j/">
  <appender name="file" class="org.apache.log4j.FileAppender">
    <param name="File" value="LOG_FILE"/>
    <layout class="org.apache.log4j.PatternLayout">
      <param name="ConversionPattern" value="%p %c %m%n"/>
    </layout>
  </appender>
  <root><priority value="INFO"/><appender-ref ref="file"/></root>
</log4j:configuration>
)";
    xml.replace(xml.find("LOG_FILE"), 8, base + ".log");
    testsupport::WriteFile(base + ".xml", xml);
    const auto run = [&](const std::string& logConfig) {
        return RunGateway({"--config", config, "--timeout", "0.2", "--log-config", logConfig},
                          base + ".out")
            ->Wait(60s);
    };
    const testsupport::ChildResult configured = run(base + ".xml");
    EXPECT_TRUE(configured.Ok()) << configured.Describe() << testsupport::ReadFile(base + ".out");
    EXPECT_NE(testsupport::ReadFile(base + ".log").find("INFO SlotGateway Stopping: time is up"),
              std::string::npos)
        << testsupport::ReadFile(base + ".log");

    const testsupport::ChildResult unreadable = run(base + ".missing.xml");
    EXPECT_TRUE(unreadable.exited && unreadable.exitCode == 2) << unreadable.Describe();
    EXPECT_EQ(testsupport::ReadFile(base + ".out"),
              "slot-gateway: cannot read log configuration '" + base +
                  ".missing.xml': No such file or directory\n");
}

// A stop ends within about the grace, however many routes wait on a peer that no longer answers
// (here a receiving gateway stopped with SIGSTOP, within its lease): the routes' graces run
// together, from the moment of the stop, not one after the other.
TEST(Gateway, StopTakesTheGraceOnceForAllRoutes) {
    std::vector<std::unique_ptr<Ends>> links;
    std::vector<Route> outs, ins;
    for (int n = 0; n < 4; ++n) {
        links.emplace_back(new Ends("gw_stop", "reliable", 64, 4, 4));
        // One configuration has one topic per domain.
        links.back()->out.topic = links.back()->in.topic = "stop_" + std::to_string(n);
        outs.push_back(links.back()->out);
        ins.push_back(links.back()->in);
    }
    const auto receiving = StartGateway(ins, 60000);
    Config config = OneRoute(outs[0]);
    config.routes = outs;
    config.stopGraceMs = 2000;
    Gateway sending(config);
    ASSERT_TRUE(Eventually([&] { return Sending(sending); }, 30s)) << sending.StatusJson();
    ASSERT_EQ(::kill(receiving->Pid(), SIGSTOP), 0);
    // kill() returns before the receiver's threads have stopped: one that still ran could take
    // and acknowledge a block. The stop is reported once all of them have.
    int status = 0;
    ASSERT_EQ(::waitpid(receiving->Pid(), &status, WUNTRACED), receiving->Pid());
    ASSERT_TRUE(WIFSTOPPED(status));
    for (const auto& link : links) {
        SlotWriter(SlotFactory::CreateSlot(&link->sourceCfg)).onNotify(link->source, "x", 1);
    }
    // Every route has its block in hand, published and waiting.
    std::this_thread::sleep_for(300ms);
    const auto start = std::chrono::steady_clock::now();
    sending.Stop();
    const auto took = std::chrono::steady_clock::now() - start;
    // One route after the other took 2 s for each route and more (10 s here).
    EXPECT_LT(took, 6s) << std::chrono::duration_cast<std::chrono::milliseconds>(took).count()
                        << " ms";
    for (const RouteStatus& route : sending.Status()) {
        EXPECT_EQ(route.counters.forwarded, 0u) << route.route.name;
    }
}

// A second SIGTERM while the gateway waits out a long grace for a receiver that does not store
// its block (the receiver's slot stays full) ends the grace at once: the block goes back to the
// head of its slot, and the gateway exits long before the grace, and the service manager's
// SIGKILL, would have passed.
TEST(Gateway, ASecondStopSignalEndsTheGrace) {
    const Ends ends("gw_impatient", "reliable", 64, 4, 1);
    boost::shared_ptr<ISlot> source = SlotFactory::CreateSlot(&ends.sourceCfg);
    SlotWriter(SlotFactory::CreateSlot(&ends.destinationCfg)).onNotify(ends.destination, "full", 4);
    Gateway receiving(OneRoute(ends.in));
    const auto sending = StartGateway({ends.out}, 2000, 120000);
    const Bytes block = NumberedBlock(0, 64);
    SlotWriter(source).onNotify(ends.source, block.data(), block.size());
    ASSERT_TRUE(Eventually([&] { return Counts(receiving).refused >= 1; }, 30s))
        << receiving.StatusJson();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(::kill(sending->Pid(), SIGTERM), 0);
    std::this_thread::sleep_for(500ms);
    ASSERT_EQ(::kill(sending->Pid(), SIGTERM), 0);
    const testsupport::ChildResult result = sending->Wait(60s);
    EXPECT_TRUE(result.Ok()) << result.Describe();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    ASSERT_EQ(source->GetBufferLength(), 1u);
    EXPECT_EQ(ReadFrom<Bytes>(*source), block);
}

// A "both" route's memory of the states it wrote: a local state that comes back after the
// peer's state was stored is not taken for an echo. B stores the peer's "ON", a local writer
// overwrites it with "OFF" before B's reader looks: "OFF" is published, and "ON" written locally
// later is a new state, published too, or the two sides would keep different states.
TEST(EchoMemory, AStateWrittenOverIsForgotten) {
    EchoMemory echoes(std::chrono::seconds(60));
    const std::uint64_t on = echoes.Remember("ON", 2);
    echoes.Written(on, true);
    std::this_thread::sleep_for(2ms);
    const boost::posix_time::ptime offWritten = shared::UtcNow();
    EXPECT_FALSE(echoes.IsEcho("OFF", 3));
    echoes.ForgetWrittenBefore(offWritten);
    EXPECT_FALSE(echoes.IsEcho("ON", 2));

    // What the gateway wrote after the block handed back, or still writes, may come back next.
    const boost::posix_time::ptime localWritten = shared::UtcNow();
    std::this_thread::sleep_for(2ms);
    const std::uint64_t later = echoes.Remember("LATER", 5);
    echoes.Written(later, true);
    echoes.Remember("WRITING", 7);
    std::this_thread::sleep_for(2ms);
    const boost::posix_time::ptime lastWritten = shared::UtcNow();
    echoes.ForgetWrittenBefore(localWritten);
    EXPECT_TRUE(echoes.IsEcho("LATER", 5));
    echoes.ForgetWrittenBefore(lastWritten);
    EXPECT_TRUE(echoes.IsEcho("WRITING", 7));
}

namespace {

// What a test's DDS knows of a reader's writers: those matched now. Counts the questions about
// one writer, which copy its whole description.
class FakePublications : public ReceivedSerials::Publications {
public:
    std::optional<Guid> WriterOf(dds_instance_handle_t handle) const override {
        ++asked;
        const auto writer = matched.find(handle);
        return writer == matched.end() ? std::nullopt : std::optional<Guid>(writer->second);
    }
    std::optional<std::vector<dds_instance_handle_t>> Matched() const override {
        std::vector<dds_instance_handle_t> handles;
        for (const auto& writer : matched) {
            handles.push_back(writer.first);
        }
        return handles;
    }

    std::map<dds_instance_handle_t, Guid> matched;
    mutable std::size_t asked = 0;
};

Guid WriterGuid(std::uint32_t n) {
    Guid guid{};
    guid[0] = 1;
    std::memcpy(guid.data() + 4, &n, sizeof n);
    return guid;
}

// What the receiving thread does with a sample: true when stored, false for a repetition.
bool Store(ReceivedSerials& serials, dds_instance_handle_t handle, std::uint64_t gateway,
           std::uint64_t serial) {
    std::uint64_t& last = serials.LastOf(handle, gateway);
    if (serial <= last) {
        return false;
    }
    last = serial;
    return true;
}

}  // namespace

// 2000 runs of a sending gateway, each a writer of its own that publishes 5 blocks and leaves;
// its last block is taken again after it left, first from its own handle and then from one that
// DDS matched anew and forgot before the copy was taken. Every copy is skipped, DDS is asked about
// each handle once (not for every sample), the memory stays bounded, and a writer that stayed
// throughout or left recently and comes back keeps its serials.
TEST(ReceivedSerials, EndlessSenderRestartsKeepMemoryAndLookupsBounded) {
    FakePublications dds;
    ReceivedSerials serials(dds);
    dds.matched[1] = WriterGuid(0);
    ASSERT_TRUE(Store(serials, 1, 100, 7));
    constexpr std::uint32_t kRuns = 2000;
    std::size_t most = 0;
    for (std::uint32_t run = 1; run <= kRuns; ++run) {
        const dds_instance_handle_t handle = 10 + 2 * run, again = handle + 1;
        const std::uint64_t gateway = 1000 + run;
        dds.matched[handle] = WriterGuid(run);
        for (std::uint64_t serial = 1; serial <= 5; ++serial) {
            ASSERT_TRUE(Store(serials, handle, gateway, serial));
        }
        dds.matched.erase(handle);
        serials.Tidy();  // a copy may have arrived before DDS let the writer go
        ASSERT_FALSE(Store(serials, handle, gateway, 5)) << "run " << run;
        serials.Tidy();
        ASSERT_FALSE(Store(serials, again, gateway, 5)) << "run " << run;
        most = std::max(most, serials.Size());
    }
    EXPECT_EQ(dds.asked, 2 * kRuns + 1);
    // Departed writers, their gateway ids, and a few handles and writers still matched.
    EXPECT_LE(most, 2 * ReceivedSerials::kMaxDeparted + 8);

    EXPECT_FALSE(Store(serials, 1, 100, 7));
    dds.matched[5] = WriterGuid(kRuns - 10);  // matched again after losing its lease
    EXPECT_FALSE(Store(serials, 5, 1000 + kRuns - 10, 5));
    EXPECT_TRUE(Store(serials, 5, 1000 + kRuns - 10, 6));
}

// A writer naming another gateway, far ahead, does not touch that gateway's serials: neither
// while both are matched nor for a copy of the gateway's block taken after both left, which
// counts as the first writer's that named the gateway.
TEST(ReceivedSerials, ASampleNamingAnotherGatewayLeavesItsSerialsAlone) {
    FakePublications dds;
    ReceivedSerials serials(dds);
    const std::uint64_t gateway = 77;
    dds.matched[1] = WriterGuid(1);
    dds.matched[2] = WriterGuid(2);
    EXPECT_TRUE(Store(serials, 1, gateway, 3));
    EXPECT_TRUE(Store(serials, 2, gateway, UINT64_MAX));
    EXPECT_TRUE(Store(serials, 1, gateway, 4));
    dds.matched.clear();
    serials.Tidy();
    serials.Tidy();
    EXPECT_FALSE(Store(serials, 3, gateway, 4));
    EXPECT_TRUE(Store(serials, 3, gateway, 5));
}

// A receiving gateway whose slot's lock fails (its header overwritten) keeps running: the block
// is not stored nor acknowledged, so its sender keeps it, and it is stored once the slot is
// whole again, followed by the next one. A sender whose slot then fails on every try says so
// once, not every 0.2 s.
TEST(GatewayDamage, ReceiverRetriesTheBlockAndSenderLogsOnce) {
    const Ends ends("gw_dmg", "reliable", 64, 4, 4);
    boost::shared_ptr<ISlot> sourceSlot = SlotFactory::CreateSlot(&ends.sourceCfg);
    SlotFactory::CreateSlot(&ends.destinationCfg);
    const auto receiving = StartGateway({ends.in}, 2000);
    testsupport::ChildResult ended;
    Gateway sending(OneRoute(ends.out));
    ASSERT_TRUE(Eventually([&] { return Sending(sending); }, 30s)) << sending.StatusJson();

    DamagedObject damage(ends.destination);
    ASSERT_TRUE(damage.damaged());
    ISubscriberPtr writer = ends.Writer();
    WriteHeld(writer, ends.source, NumberedBlock(0, 64));
    // Taken and published; the receiver fails to store it, again and again.
    ASSERT_TRUE(Eventually([&] { return sourceSlot->GetBufferLength() == 0; }, 20s));
    std::this_thread::sleep_for(3s);
    ASSERT_FALSE(receiving->Poll(&ended)) << "the receiving gateway died: " << ended.Describe();
    EXPECT_EQ(Counts(sending).forwarded, 0u) << sending.StatusJson();

    damage.Restore();
    INotifierPtr reader = ends.Read();
    WriteHeld(writer, ends.source, NumberedBlock(1, 64));
    ExpectNumbered(*ends.received, 2, 64);
    EXPECT_TRUE(Eventually([&] { return Counts(sending).forwarded == 2; }, 20s))
        << sending.StatusJson();
    EXPECT_FALSE(receiving->Poll(&ended)) << "the receiving gateway died: " << ended.Describe();

    testsupport::LogCapture log("SlotGateway");
    const std::string prefix = "Sending slot '" + ends.source + "': ";
    DamagedObject sourceDamage(ends.source);
    ASSERT_TRUE(sourceDamage.damaged());
    ASSERT_TRUE(Eventually([&] { return log.CountPrefix("ERROR", prefix) >= 1; }, 20s));
    std::this_thread::sleep_for(2s);  // ten tries and more
    EXPECT_EQ(log.CountPrefix("ERROR", prefix), 1u);

    // The remedy: the slot removed and made again is read anew.
    ASSERT_TRUE(SlotFactory::RemoveSlot(ends.source));
    sourceDamage.Removed();
    writer = ends.Writer();
    WriteHeld(writer, ends.source, NumberedBlock(2, 64));
    ExpectNumbered(*ends.received, 3, 64);
}

// A slot whose queue fails the write (its queue object overwritten) without throwing is a slot
// that failed, not one that refused: said once at ERROR, tried again at most once a second, and
// the block is stored once the slot is whole.
TEST(GatewayDamage, AFailedWriteIsAnErrorNotARefusal) {
    const Ends ends("gw_fail", "reliable", 64, 4, 4);
    SlotFactory::CreateSlot(&ends.destinationCfg);
    ISubscriberPtr writer = ends.Writer();
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));
    ASSERT_TRUE(Eventually([&] { return Sending(sending); }, 30s)) << sending.StatusJson();
    testsupport::LogCapture log("SlotGateway");
    DamagedObject damage(Slot::QueueObjectName(ends.destination));
    ASSERT_TRUE(damage.damaged());
    WriteHeld(writer, ends.source, NumberedBlock(0, 64));
    const std::string error = "Slot '" + ends.destination +
                              "' could not store block 1: the slot failed the write (retrying)";
    ASSERT_TRUE(Eventually([&] { return log.Count("ERROR", error) == 1; }, 20s))
        << testing::PrintToString(log.Messages());
    // Once the back-off has grown (1 ms doubled up to 1 s), tried about once a second, not every
    // 100 ms as a refused write is.
    std::this_thread::sleep_for(1500ms);
    const std::uint64_t retried = Counts(receiving).retried;
    std::this_thread::sleep_for(3s);
    EXPECT_LE(Counts(receiving).retried - retried, 5u) << receiving.StatusJson();
    EXPECT_EQ(log.Count("ERROR", error), 1u);
    EXPECT_EQ(log.CountPrefix("WARN", "Slot '" + ends.destination + "' refused"), 0u);
    damage.Restore();
    INotifierPtr reader = ends.Read();
    ExpectNumbered(*ends.received, 1, 64);
}

// A discarding slot's reader ends for good when the slot's lock fails: the status says the
// route no longer sends, and the gateway reads the slot again once it is whole.
TEST(GatewayDamage, SenderOfADamagedSlotReadsItAgain) {
    const Ends ends("gw_dmg_state", "discarding", 64, 1, 1);
    boost::shared_ptr<ISlot> local = SlotFactory::CreateSlot(&ends.sourceCfg);
    ISubscriberPtr writer = ends.Writer();
    Gateway receiving(OneRoute(ends.in));
    Gateway sending(OneRoute(ends.out));
    ASSERT_TRUE(Eventually([&] { return Sending(sending); }, 30s)) << sending.StatusJson();
    const std::string before = "before the damage";
    writer->onNotify(ends.source, before.data(), before.size());
    // Taken from the queue by the gateway's reader: the slot keeps it as its last state.
    ASSERT_TRUE(Eventually([&] { return local->GetBufferLength() == 0; }, 20s));
    {
        DamagedObject damage(ends.source);
        ASSERT_TRUE(damage.damaged());
        ASSERT_TRUE(Eventually([&] { return !sending.Status()[0].sending; }, 20s))
            << "still said to send";
    }
    ASSERT_TRUE(Eventually([&] { return sending.Status()[0].sending; }, 60s)) << "not read again";
    // Read again through the slot it had open: opening the slot anew would have cleared its
    // last state for every process.
    EXPECT_EQ(ReadFrom(*local), before);
    boost::shared_ptr<ISlot> copy = SlotFactory::CreateSlot(&ends.destinationCfg);
    const std::string state = "after the repair";
    std::string seen;
    // Written again now and then: a state older than the update time is not passed on.
    ASSERT_TRUE(Eventually(
        [&] {
            writer->onNotify(ends.source, state.data(), state.size());
            std::this_thread::sleep_for(100ms);
            return (seen = ReadFrom(*copy)) == state;
        },
        20s))
        << "last seen: '" << seen << "'";
}

// Discarding routes with a long update time start together, not one update time after the
// other, and a stop ends their readers at once instead of waiting out their wait for the slot.
TEST(Gateway, SlowDiscardingRoutesStartTogetherAndStopAtOnce) {
    std::vector<std::unique_ptr<testsupport::ScopedSlotName>> slots;
    const std::string partition = testsupport::UniqueName("part");
    Config config = OneRoute(Route());
    config.gatewayName = "slow";
    config.stopGraceMs = 1000;
    config.routes.clear();
    for (int n = 0; n < 3; ++n) {
        slots.emplace_back(new testsupport::ScopedSlotName("gw_slow"));
        Route route = MakeRoute(*slots.back(), "discarding", Direction::ToNetwork, partition,
                                "slow_" + std::to_string(n), 64, 1);
        route.updateTimeMs = 8000;
        config.routes.push_back(route);
    }
    Gateway gateway(config);
    // One after the other, each pausing one update time, they took 24 s.
    EXPECT_TRUE(Eventually([&] { return Sending(gateway, false); }, 12s)) << gateway.StatusJson();
    const auto start = std::chrono::steady_clock::now();
    gateway.Stop();
    const auto took = std::chrono::steady_clock::now() - start;
    // Each reader's wait took up to its update time (8 s) to end.
    EXPECT_LT(took, 6s) << std::chrono::duration_cast<std::chrono::milliseconds>(took).count()
                        << " ms";
}
