#!/usr/bin/env bash
# The Velto dissector on real traffic: the hub and two simulated devices run
# here (a private network namespace: tests/netns.sh) while dumpcap records the
# loopback; they adopt, join, configure, relay a 5,000-byte message, subscribe,
# notify, ask the device list and an object's information. tshark must then
# decode every datagram as velto with no malformed packet and no Lua error,
# name every pack kind, and show the fields the devices were told to send.
# Usage: velto_capture_test.sh VELTO_HUB VELTO_DEVICE
set -euo pipefail
HUB=$(realpath "$1") DEVICE=$(realpath "$2")
. "$(dirname "$0")/wireshark_env.sh"

PIDS=()
cleanup() {
    local pid
    for pid in "${PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    [ -n "${KEEP:-}" ] || rm -rf "$WORK"
}
trap cleanup EXIT

# wait_for FILE PATTERN: until FILE has a line matching PATTERN, at most 10 s.
wait_for() {
    local i
    for i in $(seq 100); do
        grep -q -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.1
    done
    fail "no \"$2\" in $1 within 10 s: $(tail -n 5 "$1" 2>/dev/null)"
}

# start_device NAME ARGS...: velto-device reading commands from fd 3/4 (NAME a/b).
start_device() {
    local name=$1
    shift
    mkfifo "$WORK/$name.in"
    "$DEVICE" "$@" <"$WORK/$name.in" >"$WORK/$name.out" 2>"$WORK/$name.err" &
    PIDS+=($!)
}

CAP=$WORK/traffic.pcapng
dumpcap -i lo -f 'udp port 1881' -w "$CAP" >"$WORK/dumpcap.out" 2>"$WORK/dumpcap.err" &
DUMPCAP=$!
PIDS+=($DUMPCAP)
wait_for "$WORK/dumpcap.err" "Capturing on"

mkdir -p "$WORK/hub/DB"
(cd "$WORK/hub" && exec "$HUB") >"$WORK/hub.out" 2>"$WORK/hub.err" &
PIDS+=($!)
wait_for "$WORK/hub.out" "Successfully bind"

# The lamp finds the hub through the multicast group and signs its packs.
start_device a --duid lamp-01 --specs t1 --sign --object light:switchable.1
exec 3>"$WORK/a.in"
wait_for "$WORK/a.out" "joined hub .* as node 1000"
start_device b --duid switch-01 --specs t1 --hub 127.0.0.1 --object button:push.1
exec 4>"$WORK/b.in"
wait_for "$WORK/b.out" "joined hub .* as node 1001"

BIG=$(printf 'abcdefghijklmnopqrstuvwxy%.0s' $(seq 200))
BIG_SUM=$(printf '%s' "$BIG" | od -An -tu1 -v | awk '{ for (i = 1; i <= NF; i++) s += $i } END { print s }')
echo "send 1000/0 7 $BIG" >&4
wait_for "$WORK/a.out" "message from 1001/0 to 1000/0 id 7 no [0-9]* size 5000"
echo "subscribe 1000 0 9" >&4
wait_for "$WORK/b.out" "subscribed 1000/0 event 9"
echo "notify 0 9 on" >&3
wait_for "$WORK/b.out" "notification from 1000/0 event 9 no [0-9]* size 2: on"
echo "send 1/1 3 hex:03e8" >&4
echo "list" >&4
wait_for "$WORK/b.out" "lamp-01"
sleep 2.5  # long enough for the pings of a quiet link
echo quit >&3
echo quit >&4
sleep 0.5
kill -INT "$DUMPCAP"
wait "$DUMPCAP" || true

# field NAMES...: one line per datagram, fields separated by tabs.
fields() {
    local args=()
    for f in "$@"; do args+=(-e "$f"); done
    tshark_velto -r "$CAP" -T fields -E occurrence=a -E aggregator=, "${args[@]}"
}

TOTAL=$(fields frame.number | wc -l)
[ "$TOTAL" -ge 30 ] || fail "only $TOTAL datagrams captured"
[ "$(tshark_velto -r "$CAP" -Y '!velto' | wc -l)" -eq 0 ] || fail "datagrams not decoded as velto"
BAD=$(tshark_velto -r "$CAP" -Y "_ws.malformed || $VELTO_MALFORMED")
[ -z "$BAD" ] || fail "malformed: $BAD"
tshark_velto -r "$CAP" -V >"$WORK/verbose.txt"
! grep -q "Lua Error" "$WORK/verbose.txt" || fail "Lua Error in the packet tree"

# Every kind of pack a session uses, named in the Info column.
SEEN=$(fields velto.id _ws.col.Info | awk -F'\t' '{ print $1 " " $2 }' | sort -un -k1,1 | awk '{ print $1 " " $2 }')
for kind in "1 NewBornDevice" "2 AdoptionOffer" "3 NetworkJoin" "4 JoinAccepted" "10 ConfigSummary" \
    "15 GetObjectInfo" "16 ObjectInfo" "19 ConfigurationComplete" "20 PingPong" "31 MessageCarrier" \
    "32 MessageCarrierACK" "33 NotificationSubscription"; do
    grep -qx "$kind" <<<"$SEEN" || fail "no \"$kind\" among: $(echo $SEEN)"
done

# expect WHAT FILTER FIELDS EXPECTED: the fields of the datagrams FILTER selects, deduplicated.
expect() {
    local got
    got=$(tshark_velto -r "$CAP" -Y "$2" -T fields -E occurrence=a -E aggregator=, $(printf -- '-e %s ' $3) | sort -u)
    [ "$got" = "$4" ] || fail "$1: expected [$4], got [$got]"
}
expect "announcements" "velto.id == 1" "velto.newborn.duid velto.newborn.specs" "$(printf 'lamp-01\tt1\nswitch-01\tt1')"
expect "node ids" "velto.id == 4" "velto.joinaccepted.duid velto.joinaccepted.nodeid" \
    "$(printf 'lamp-01\t1000\nswitch-01\t1001')"
expect "objects" "velto.id == 16" "velto.devid velto.objectinfo.name velto.objectinfo.interface" \
    "$(printf '1000\tlight\tswitchable.1\n1001\tbutton\tpush.1')"
expect "signed packs" "velto.sigtype == 1" "velto.devid" "1000"
SIGNED=$(fields velto.signature | grep -c .)
[ "$SIGNED" -gt 0 ] && [ "$(fields velto.signature | grep -cE '^[0-9a-f]{40}$')" -eq "$SIGNED" ] ||
    fail "signatures of HMAC_SHA1_TYPE are not all 20 bytes"
expect "5000-byte message" "velto.carrier.msgid == 7" \
    "velto.carrier.msgsize velto.carrier.checksum velto.carrier.payload.len" \
    "$(printf "5000\t%s\t%s\n5000\t%s\t326" "$BIG_SUM" $((5000 % 326)) "$BIG_SUM")"
PIECES=$(tshark_velto -r "$CAP" -Y "velto.carrier.msgid == 7 && udp.srcport == 1881" -T fields \
    -e velto.carrier.packetstart | sort -un | tr '\n' ' ')
[ "$PIECES" = "$(seq -s ' ' 0 326 4999) " ] || fail "pieces to the lamp start at [$PIECES]"
expect "acknowledged" "velto.ack.msgid == 7" "velto.ack.lastseqno" "5000"
expect "subscription" "velto.id == 33" "velto.subscription.nodeid velto.subscription.objectno \
    velto.subscription.eventid velto.subscription.subscribe" "$(printf '1000\t0\t9\t1')"
expect "notification" "velto.carrier.msgcat == 1" "velto.carrier.fromdeviceid velto.carrier.msgid \
    velto.carrier.payload" "$(printf '1000\t9\t6f6e')"
expect "object information request" "velto.carrier.msgid == 3 && velto.carrier.todeviceid == 1" \
    "velto.devmgmt.message velto.objinforeq.nodeid" "$(printf 'RequestBasicObjectInfoMsg\t1000')"
expect "device list request" "velto.carrier.msgid == 1 && velto.carrier.todeviceid == 1" \
    "velto.devmgmt.message" "RequestBasicDeviceListMsg"
expect "device list" "velto.carrier.msgid == 2 && velto.carrier.fromdeviceid == 1" \
    "velto.devmgmt.message velto.devlist.count velto.devlist.duid velto.devlist.status" \
    "$(printf 'BasicDeviceListMsg\t3\tlamp-01,switch-01,VHubMainServices\t6,6,0')"
echo "PASS: $TOTAL datagrams decoded"
