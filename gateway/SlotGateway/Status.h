// SPDX-License-Identifier: Apache-2.0
// What a gateway reports about its routes: counters, the status document (JSON) and its file,
// and the table `slot-gateway --status` prints.
#pragma once

#include <SlotGateway/Config.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace SlotGateway {

// What one route has done since the gateway started.
struct RouteCounters {
    std::uint64_t forwarded = 0;   // slot -> network: blocks published (reliable: acknowledged)
    std::uint64_t received = 0;    // network -> slot: blocks stored in the slot
    std::uint64_t retried = 0;     // attempts repeated: a refused slot write, a blocked or
                                   // unacknowledged publication
    std::uint64_t refused = 0;     // blocks the destination slot refused at least once
    std::uint64_t dropped = 0;     // blocks given up, each logged at ERROR
    std::uint64_t echoes = 0;      // blocks this gateway wrote itself, not sent back ("both")
    std::uint64_t duplicates = 0;  // blocks received a second time, not stored again
};

struct RouteStatus {
    Route route;
    RouteCounters counters;
    // DDS readers of the topic that this route's writer matches: receiving gateways, and any
    // other reader in the partition (a monitoring tool too).
    std::uint32_t matchedReaders = 0;
    // DDS writers of the topic that this route's reader matches: sending gateways, and any other
    // writer in the partition.
    std::uint32_t matchedWriters = 0;
    // The slot is being read (a reliable one: its reader claim is held, from the first match of
    // a receiving gateway on, also while none is matched; no block is then in hand but one that
    // did not fit back into the full slot yet).
    bool sending = false;
};

// The status document of gateway `gatewayName` (id `gatewayId`, this process, now, written every
// `intervalMs`) as JSON.
std::string StatusDocument(const std::string& gatewayName, std::uint64_t gatewayId, bool stopped,
                           unsigned intervalMs, const std::vector<RouteStatus>& routes);

// Writes `text` to `path` atomically (a new temporary file "<path>.tmp.XXXXXX" beside it, then
// rename); its folder is a shared::CheckedFolder and no symlink is followed, nor a file touched
// that it did not create. Returns "" or the error.
std::string WriteFileAtomically(const std::string& path, const std::string& text);

// Removes the temporaries of `path` that a writer killed mid-write left ("<path>.tmp.XXXXXX":
// regular files of this user); for a gateway's start. Returns how many; 0 also when the folder
// cannot be checked (WriteFileAtomically then says why).
unsigned RemoveStaleTemporaries(const std::string& path);

// A status document (StatusJson) as a table, for `slot-gateway --status` at time `now`. Its first
// line says "(not running)" when the document's process is gone (or its pid now belongs to a
// process started after the document was written), else "(last written N s ago)" when the
// document is older than three of its write intervals: a killed or stopped gateway's file is not
// taken for a current one.
std::string FormatStatus(const std::string& json, std::time_t now);

}  // namespace SlotGateway
