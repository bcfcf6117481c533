#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Two gateways on two "hosts" of this machine: network namespaces joined by a veth pair, each
# with its own /dev/shm and /run/lock (a mount namespace kept by a holder process). Covers both
# slot kinds and both directions, a receiving gateway restarted mid-stream (reliable: nothing
# lost), SIGKILLed mid-stream (the stall until blocks flow again is measured), a reliable slot
# left alone while no receiver is matched (kept whole and in order across a SIGKILL of the
# sender), blocks of 0 bytes to the maximum size, the latest state of a discarding slot, no
# echo in a both-ways configuration, and both pool kinds (blocks filled in place, every block of
# a queue pool in order, the last of a latest pool; no pool file left behind). Needs root; otherwise reported as skipped (exit 77).
#   two_hosts.sh SLOT_GATEWAY GATEWAY_PROBE
set -euo pipefail
gateway=$(realpath "$1")
probe=$(realpath "$2")

skip() {
    echo "************************************************************" >&2
    echo "SKIPPED: gateway two-host test: $*" >&2
    echo "************************************************************" >&2
    exit 77
}
[[ $(id -u) == 0 ]] || skip "needs root (network and mount namespaces)"
for tool in ip nsenter unshare python3; do
    command -v "$tool" > /dev/null || skip "$tool is missing (scripts/setup.sh installs it)"
done

tag=$$
nsA=slotgw${tag}a nsB=slotgw${tag}b
ifA=sgw${tag}a ifB=sgw${tag}b  # at most 15 characters
work=$(mktemp -d /tmp/slotgw-test.XXXXXX)
holderA="" holderB=""
declare -A gateways=()

cleanup() {
    set +e
    for pid in "${gateways[@]}"; do kill -KILL "$pid" 2> /dev/null; done
    [[ -n $holderA ]] && kill -KILL "$holderA" 2> /dev/null
    [[ -n $holderB ]] && kill -KILL "$holderB" 2> /dev/null
    wait 2> /dev/null
    ip netns del "$nsA" 2> /dev/null
    ip netns del "$nsB" 2> /dev/null
    ip link del "$ifA" 2> /dev/null
    [[ -n ${SLOT_GATEWAY_TEST_KEEP:-} ]] || rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

step() { echo "--- $(date +%T) $*"; }
fail() {
    echo "FAILED: $*" >&2
    for f in "$work"/*.log "$work"/status-*.json; do
        if [[ -e $f ]]; then echo "== $f"; tail -n 30 "$f"; fi
    done >&2
    exit 1
}

ip netns add "$nsA" || skip "cannot create network namespaces here"
ip netns add "$nsB"
ip link add "$ifA" type veth peer name "$ifB" || skip "cannot create a veth pair here"
ip link set "$ifA" netns "$nsA"
ip link set "$ifB" netns "$nsB"
ip -n "$nsA" addr add 10.231.0.1/24 dev "$ifA"
ip -n "$nsB" addr add 10.231.0.2/24 dev "$ifB"
for ns in "$nsA" "$nsB"; do ip -n "$ns" link set lo up; done
ip -n "$nsA" link set "$ifA" up
ip -n "$nsB" link set "$ifB" up

# A host: a process that keeps the namespaces, with private tmpfs on /dev/shm and /run/lock.
start_host() {
    ip netns exec "$1" unshare -m --propagation private sh -c \
        'mount -t tmpfs tmpfs /dev/shm && mount -t tmpfs tmpfs /run/lock && touch /dev/shm/.host-ready && exec sleep 100000' &
}
start_host "$nsA"; holderA=$!
start_host "$nsB"; holderB=$!
for holder in "$holderA" "$holderB"; do
    for _ in $(seq 100); do
        nsenter -t "$holder" -m test -e /dev/shm/.host-ready && break
        sleep 0.05
    done
    nsenter -t "$holder" -m test -e /dev/shm/.host-ready || fail "host namespace did not come up"
done

# Cyclone DDS on the veth only, the peer named (no reliance on multicast).
dds_config() {  # own-interface peer-address
    echo "<CycloneDDS><Domain><General><Interfaces><NetworkInterface name=\"$1\"/></Interfaces><AllowMulticast>false</AllowMulticast></General><Discovery><ParticipantIndex>auto</ParticipantIndex><Peers><Peer address=\"$2\"/></Peers></Discovery></Domain></CycloneDDS>"
}
ddsA=$(dds_config "$ifA" 10.231.0.2)
ddsB=$(dds_config "$ifB" 10.231.0.1)
# Command prefixes (arrays, not functions: "$!" of a background job is then the program itself).
on_A=(nsenter -t "$holderA" -m -n env CYCLONEDDS_URI="$ddsA")
on_B=(nsenter -t "$holderB" -m -n env CYCLONEDDS_URI="$ddsB")

max=65536
config() {  # file, direction of A->B slots, direction of B->A slots
    cat > "$1" <<JSON
{
  "gateway": {"status_interval_ms": 100, "stop_grace_ms": 3000},
  "slots": [
    {"name": "gw_rel", "type": "reliable", "max_size": $max, "queue_length": 8, "update_time_ms": 20,
     "direction": "$2", "partition": "t$tag", "topic": "rel"},
    {"name": "gw_back", "type": "reliable", "max_size": $max, "queue_length": 8, "update_time_ms": 20,
     "direction": "$3", "partition": "t$tag", "topic": "back"},
    {"name": "gw_latest", "type": "discarding", "max_size": 4096, "update_time_ms": 500,
     "direction": "$2", "partition": "t$tag", "topic": "latest"},
    {"name": "gw_shared", "type": "discarding", "max_size": 4096, "update_time_ms": 500,
     "direction": "both", "partition": "t$tag", "topic": "shared"},
    {"name": "gw_pool", "pool": "queue", "max_size": $max, "blocks": 8,
     "direction": "$2", "partition": "t$tag", "topic": "pool"},
    {"name": "gw_pool_latest", "pool": "latest", "max_size": 4096, "blocks": 4,
     "direction": "$2", "partition": "t$tag", "topic": "pool_latest"}
  ]
}
JSON
}
config "$work/a.json" to-network from-network
config "$work/b.json" from-network to-network

lease_ms=500
# Each gateway stops itself after --timeout seconds, a safety net for a test that hangs; it must
# outlast the whole script on a loaded machine (ctest stops the script at 600 s).
start_gateway() {  # host
    local -n runner=on_$1
    "${runner[@]}" "$gateway" --timeout 540 --lease-ms $lease_ms --config "$work/${1,,}.json" --status-file "$work/status-$1.json" \
        >> "$work/gateway-$1.log" 2>&1 &
    gateways[$1]=$!
}
stop_gateway() {  # host
    local pid=${gateways[$1]}
    kill -TERM "$pid"
    for _ in $(seq 300); do kill -0 "$pid" 2> /dev/null || break; sleep 0.05; done
    kill -0 "$pid" 2> /dev/null && fail "gateway $1 did not stop within 15 s of SIGTERM"
    wait "$pid" || fail "gateway $1 exited with status $?"
    unset "gateways[$1]"
}
kill_gateway() {  # host: SIGKILL; its status file goes too, so that counters are the next run's
    kill -KILL "${gateways[$1]}"
    wait "${gateways[$1]}" 2> /dev/null || true
    unset "gateways[$1]"
    rm -f "$work/status-$1.json"
}
wait_started() {  # host
    for _ in $(seq 400); do
        [[ -e $work/status-$1.json ]] && return 0
        sleep 0.05
    done
    fail "gateway $1 did not start"
}
# counter host slot field: a counter from the host's status file.
counter() {
    python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); print([s for s in d["slots"] if s["name"]==sys.argv[2]][0][sys.argv[3]])' \
        "$work/status-$1.json" "$2" "$3" 2> /dev/null || echo -1
}
wait_counter() {  # host slot field minimum seconds
    for _ in $(seq $(($5 * 20))); do
        (( $(counter "$1" "$2" "$3") >= $4 )) 2> /dev/null && return 0
        for pid in "${gateways[@]}"; do kill -0 "$pid" 2> /dev/null || fail "a gateway died"; done
        sleep 0.05
    done
    return 1
}

step "start both gateways"
start_gateway A
start_gateway B
wait_started A
wait_started B

count=600
step "reliable A -> B: $count blocks of 0..$max bytes, B's gateway restarted mid-stream"
"${on_B[@]}" timeout -s KILL 150 "$probe" read gw_rel $max $count 120 > "$work/read-rel.log" 2>&1 &
reader=$!
"${on_A[@]}" timeout -s KILL 150 "$probe" write gw_rel $max $count > "$work/write-rel.log" 2>&1 &
writer=$!
wait_counter B gw_rel received 200 60 || fail "B received fewer than 200 blocks"
stop_gateway B
start_gateway B
wait "$writer" || fail "writer on A failed"
wait "$reader" || fail "reader on B: $(cat "$work/read-rel.log")"
cat "$work/read-rel.log"

step "reliable A -> B: B's gateway SIGKILLed and restarted three times mid-stream"
# The stall: from the SIGKILL until the restarted gateway has stored two blocks (the first may
# be the one in flight, sent again; the second needs the sender to be done with it).
# A paced stream (a block every 10 ms, 12 s without the stalls), so that it still runs at the
# third SIGKILL also when polling the status on a loaded machine takes seconds per round.
count=1200
"${on_B[@]}" timeout -s KILL 150 "$probe" read gw_rel $max $count 120 > "$work/read-kill.log" 2>&1 &
reader=$!
"${on_A[@]}" timeout -s KILL 150 "$probe" write gw_rel $max $count 10 > "$work/write-kill.log" 2>&1 &
writer=$!
stalls=()
for round in 1 2 3; do
    base=$(counter B gw_rel received)
    wait_counter B gw_rel received $((base + 40)) 60 || fail "B received fewer than 40 blocks before SIGKILL $round"
    start=$(date +%s%N)
    kill_gateway B
    start_gateway B
    wait_counter B gw_rel received 2 30 || fail "blocks did not resume after SIGKILL $round of B"
    stalls+=($(( ($(date +%s%N) - start) / 1000000 )))
done
wait "$writer" || fail "writer on A failed"
wait "$reader" || fail "reader on B: $(cat "$work/read-kill.log")"
cat "$work/read-kill.log"
echo "stall after a SIGKILL of the receiving gateway (lease $lease_ms ms): ${stalls[*]} ms"
for stall in "${stalls[@]}"; do
    (( stall < 5000 )) || fail "blocks resumed only $stall ms after a SIGKILL of the receiving gateway"
done

step "reliable A -> B: nothing taken while B's gateway is stopped; kept across a SIGKILL of A's"
stop_gateway B
wait_counter_max() {  # host slot field maximum seconds
    for _ in $(seq $(($5 * 20))); do
        (( $(counter "$1" "$2" "$3") <= $4 )) 2> /dev/null && return 0
        sleep 0.05
    done
    return 1
}
wait_counter_max A gw_rel matched_readers 0 30 || fail "A still sees a receiver of gw_rel"
held=8  # the slot's queue length
"${on_A[@]}" timeout -s KILL 60 "$probe" write gw_rel $max $held > "$work/write-held.log" 2>&1 || fail "writer on A failed"
sleep 1  # room for a wrong take
waiting=$("${on_A[@]}" "$probe" length gw_rel $max)
[[ $waiting == "$held" ]] || fail "A's gateway took from gw_rel without a receiver: $waiting of $held blocks left"
kill_gateway A
start_gateway A
start_gateway B
wait_started A
wait_started B
"${on_B[@]}" timeout -s KILL 90 "$probe" read gw_rel $max $held 60 > "$work/read-held.log" 2>&1 ||
    fail "reader on B: $(cat "$work/read-held.log")"
cat "$work/read-held.log"

step "reliable B -> A: 300 blocks"
"${on_A[@]}" timeout -s KILL 100 "$probe" read gw_back $max 300 80 > "$work/read-back.log" 2>&1 &
reader=$!
"${on_B[@]}" timeout -s KILL 100 "$probe" write gw_back $max 300 > "$work/write-back.log" 2>&1 || fail "writer on B failed"
wait "$reader" || fail "reader on A: $(cat "$work/read-back.log")"

step "queue pool A -> B: 300 blocks filled in place, every one in order"
"${on_B[@]}" timeout -s KILL 100 "$probe" pool-read queue gw_pool $max 8 300 80 > "$work/read-pool.log" 2>&1 &
reader=$!
"${on_A[@]}" timeout -s KILL 100 "$probe" pool-write queue gw_pool $max 8 300 > "$work/write-pool.log" 2>&1 ||
    fail "pool writer on A: $(cat "$work/write-pool.log")"
wait "$reader" || fail "pool reader on B: $(cat "$work/read-pool.log")"
cat "$work/read-pool.log"

step "latest pool A -> B: states in order, the last one arrives"
"${on_B[@]}" timeout -s KILL 60 "$probe" pool-read latest gw_pool_latest 4096 4 40 40 > "$work/read-pool-latest.log" 2>&1 &
reader=$!
"${on_A[@]}" timeout -s KILL 60 "$probe" pool-write latest gw_pool_latest 4096 4 40 10 > "$work/write-pool-latest.log" 2>&1 ||
    fail "pool writer on A: $(cat "$work/write-pool-latest.log")"
wait "$reader" || fail "latest pool reader on B: $(cat "$work/read-pool-latest.log")"
cat "$work/read-pool-latest.log"

step "discarding A -> B: the latest state arrives"
for n in $(seq 1 40); do "${on_A[@]}" timeout -s KILL 20 "$probe" state gw_latest 4096 "state $n"; done
"${on_B[@]}" timeout -s KILL 40 "$probe" wait-state gw_latest 4096 "state 40" 30 || fail "B does not hold the latest state"

step "discarding both ways: each state crosses once, no echo"
# A reader on the receiving host (the gateway there reads the slot too: "both").
watch() {  # host text
    local -n runner=on_$1
    "${runner[@]}" timeout -s KILL 40 "$probe" watch-state gw_shared 4096 "$2" 30 > "$work/watch-$1.log" 2>&1 &
    watcher=$!
    for _ in $(seq 200); do grep -q ready "$work/watch-$1.log" && return 0; sleep 0.05; done
    fail "watcher on $1 did not start"
}
watch B "from A"
"${on_A[@]}" timeout -s KILL 20 "$probe" state gw_shared 4096 "from A"
wait "$watcher" || fail "B did not get A's state"
# B's gateway handed "from A" back to its slot; its reader of the slot skips it as an echo. A
# state written while that reader still runs its subscriber would wait for the reader's next
# timed poll and count as expired there, so B writes only after the echo was seen.
wait_counter B gw_shared echoes_skipped 1 30 || fail "B's gateway did not see its own write come back from its slot"
sleep 0.2
watch A "from B"
"${on_B[@]}" timeout -s KILL 20 "$probe" state gw_shared 4096 "from B"
wait "$watcher" || fail "A did not get B's state"
wait_counter A gw_shared echoes_skipped 1 30 || fail "A's gateway did not see its own write come back from its slot"
wait_counter B gw_shared echoes_skipped 1 30 || fail "B's gateway did not see its own write come back from its slot"
stop_gateway A
stop_gateway B
for host in A B; do
    f=$(counter $host gw_shared forwarded) r=$(counter $host gw_shared received)
    [[ $f == 1 && $r == 1 ]] || fail "host $host forwarded $f and received $r states of gw_shared (1 and 1 expected)"
    d=$(( $(counter $host gw_rel dropped) + $(counter $host gw_back dropped) + $(counter $host gw_pool dropped) ))
    [[ $d == 0 ]] || fail "host $host dropped $d reliable or queue pool blocks"
    runner=on_$host[@]
    for pool in gw_pool gw_pool_latest; do
        "${!runner}" "$probe" pool-rm $pool || fail "host $host has no pool $pool"
    done
    left=$("${!runner}" sh -c 'ls -A /dev/shm/libslot-pools')
    [[ -z $left ]] || fail "host $host left pool files behind: $left"
done
"$gateway" --status "$work/status-A.json"
echo "gateway two-host test passed"
