#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Two gateways on two "hosts" of this machine: network namespaces joined by a veth pair, each
# with its own /dev/shm and /run/lock (a mount namespace kept by a holder process). The cases are
# the steps below; no block is lost or dropped, and no pool file is left behind. Needs root;
# otherwise reported as skipped (exit 77).
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
    for pid in "${gateways[@]}" $holderA $holderB; do kill -KILL "$pid" 2> /dev/null; done
    wait 2> /dev/null
    for ns in "$nsA" "$nsB"; do ip netns del "$ns" 2> /dev/null; done
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
start_both() {
    start_gateway A
    start_gateway B
    for host in A B; do
        for _ in $(seq 400); do
            [[ -e $work/status-$host.json ]] && continue 2
            sleep 0.05
        done
        fail "gateway $host did not start"
    done
}
# counter host slot field: a counter from the host's status file.
counter() {
    python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); print([s for s in d["slots"] if s["name"]==sys.argv[2]][0][sys.argv[3]])' \
        "$work/status-$1.json" "$2" "$3" 2> /dev/null || echo -1
}
wait_counter() {  # host slot field -ge|-le bound seconds
    local value
    for _ in $(seq $(($6 * 20))); do
        value=$(counter "$1" "$2" "$3")
        [[ $value != -1 ]] && test "$value" "$4" "$5" && return 0
        for pid in "${gateways[@]}"; do kill -0 "$pid" 2> /dev/null || fail "a gateway died"; done
        sleep 0.05
    done
    return 1
}
# run host seconds log probe-arguments...: the probe on a host under a time limit, its output in
# $work/LOG.log.
run() {
    local -n runner=on_$1
    "${runner[@]}" timeout -s KILL "$2" "$probe" "${@:4}" > "$work/$3.log" 2>&1
}
finish() {  # pid log what: waits for a probe run in the background; fails with its output
    wait "$1" || fail "$3: $(cat "$work/$2.log")"
    cat "$work/$2.log"
}
# stream name seconds reader-host reader-arguments writer-host writer-arguments: a reader in the
# background, then the writer; both must succeed.
stream() {
    run "$3" "$2" "read-$1" $4 &
    local reader=$!
    run "$5" "$2" "write-$1" $6 || fail "writer on $5: $(cat "$work/write-$1.log")"
    finish $reader "read-$1" "reader on $3"
}

step "start both gateways"
start_both

count=600
step "reliable A -> B: $count blocks of 0..$max bytes, B's gateway restarted mid-stream"
run B 150 read-rel read gw_rel $max $count 120 &
reader=$!
run A 150 write-rel write gw_rel $max $count &
writer=$!
wait_counter B gw_rel received -ge 200 60 || fail "B received fewer than 200 blocks"
stop_gateway B
start_gateway B
finish $writer write-rel "writer on A"
finish $reader read-rel "reader on B"

step "reliable A -> B: B's gateway SIGKILLed and restarted three times mid-stream"
# The stall: from the SIGKILL until the restarted gateway has stored two blocks (the first may
# be the one in flight, sent again; the second needs the sender to be done with it).
# A paced stream (a block every 10 ms, 12 s without the stalls), so that it still runs at the
# third SIGKILL also when polling the status on a loaded machine takes seconds per round.
count=1200
run B 150 read-kill read gw_rel $max $count 120 &
reader=$!
run A 150 write-kill write gw_rel $max $count 10 &
writer=$!
stalls=()
for round in 1 2 3; do
    base=$(counter B gw_rel received)
    wait_counter B gw_rel received -ge $((base + 40)) 60 || fail "B received fewer than 40 blocks before SIGKILL $round"
    start=$(date +%s%N)
    kill_gateway B
    start_gateway B
    wait_counter B gw_rel received -ge 2 30 || fail "blocks did not resume after SIGKILL $round of B"
    stalls+=($(( ($(date +%s%N) - start) / 1000000 )))
done
finish $writer write-kill "writer on A"
finish $reader read-kill "reader on B"
echo "stall after a SIGKILL of the receiving gateway (lease $lease_ms ms): ${stalls[*]} ms"
for stall in "${stalls[@]}"; do
    (( stall < 5000 )) || fail "blocks resumed only $stall ms after a SIGKILL of the receiving gateway"
done

step "reliable A -> B: nothing taken while B's gateway is stopped; kept across a SIGKILL of A's"
stop_gateway B
wait_counter A gw_rel matched_readers -le 0 30 || fail "A still sees a receiver of gw_rel"
held=8  # the slot's queue length
run A 60 write-held write gw_rel $max $held || fail "writer on A: $(cat "$work/write-held.log")"
sleep 1  # room for a wrong take
waiting=$("${on_A[@]}" "$probe" length gw_rel $max)
[[ $waiting == "$held" ]] || fail "A's gateway took from gw_rel without a receiver: $waiting of $held blocks left"
kill_gateway A
start_both
run B 90 read-held read gw_rel $max $held 60 &
finish $! read-held "reader on B"

step "reliable B -> A: 300 blocks"
stream back 100 A "read gw_back $max 300 80" B "write gw_back $max 300"

step "queue pool A -> B: 300 blocks filled in place, every one in order"
stream pool 100 B "pool-read queue gw_pool $max 8 300 80" A "pool-write queue gw_pool $max 8 300"

step "latest pool A -> B: states in order, the last one arrives, none dropped"
stream pool-latest 60 B "pool-read latest gw_pool_latest 4096 4 40 40" \
    A "pool-write latest gw_pool_latest 4096 4 40 10"

step "discarding A -> B: the latest state arrives"
for n in $(seq 1 40); do "${on_A[@]}" timeout -s KILL 20 "$probe" state gw_latest 4096 "state $n"; done
"${on_B[@]}" timeout -s KILL 40 "$probe" wait-state gw_latest 4096 "state 40" 30 || fail "B does not hold the latest state"

step "discarding both ways: each state crosses once, no echo"
# A reader on the receiving host (the gateway there reads the slot too: "both").
watch() {  # host text
    run "$1" 40 "watch-$1" watch-state gw_shared 4096 "$2" 30 &
    watcher=$!
    for _ in $(seq 200); do grep -q ready "$work/watch-$1.log" && return 0; sleep 0.05; done
    fail "watcher on $1 did not start"
}
for hosts in AB BA; do
    from=${hosts:0:1} to=${hosts:1}
    watch $to "from $from"
    run $from 20 state state gw_shared 4096 "from $from" || fail "cannot write on $from"
    wait "$watcher" || fail "$to did not get $from's state"
    # $to's gateway handed the state back to its slot; its reader of the slot skips it as an echo.
    # A state written while that reader still runs its subscriber would wait for the reader's next
    # timed poll and count as expired there, so the other side writes only after the echo was seen.
    wait_counter $to gw_shared echoes_skipped -ge 1 30 || fail "$to's gateway did not see its own write come back from its slot"
    sleep 0.2
done
stop_gateway A
stop_gateway B
for host in A B; do
    f=$(counter $host gw_shared forwarded) r=$(counter $host gw_shared received)
    [[ $f == 1 && $r == 1 ]] || fail "host $host forwarded $f and received $r states of gw_shared (1 and 1 expected)"
    d=0
    for slot in gw_rel gw_back gw_pool gw_pool_latest; do d=$((d + $(counter $host $slot dropped))); done
    [[ $d == 0 ]] || fail "host $host dropped $d blocks"
    runner=on_$host[@]
    for pool in gw_pool gw_pool_latest; do
        "${!runner}" "$probe" pool-rm $pool || fail "host $host has no pool $pool"
    done
    left=$("${!runner}" sh -c 'ls -A /dev/shm/libslot-pools')
    [[ -z $left ]] || fail "host $host left pool files behind: $left"
done
"$gateway" --status "$work/status-A.json"
echo "gateway two-host test passed"
