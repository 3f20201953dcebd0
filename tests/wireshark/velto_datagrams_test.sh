#!/usr/bin/env bash
# The Velto dissector on hand-made datagrams (datagrams.txt): every pack's
# fields and the carried device-management messages, and malformed input
# (truncated header, truncated body, over-long text, wrong signature size, a
# byte array longer than the packet) marked with expert info without stopping
# the packets after it. The -T fields output must equal datagrams.golden. The
# same datagrams on other ports are taken by the heuristic dissector only when
# they are well formed.
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/wireshark_env.sh"
trap 'rm -rf "$WORK"' EXIT

# One text2pcap packet per hex line of datagrams.txt, plus the extra lines given.
to_pcap() {
    local ports=$1 out=$2
    shift 2
    { grep -v '^#' "$HERE/datagrams.txt"; printf '%s\n' "$@"; } | sed 's/../& /g; s/^/000000 /' >"$WORK/in.hex"
    text2pcap -q -u "$ports" "$WORK/in.hex" "$out" >"$WORK/text2pcap.log" 2>&1 ||
        fail "text2pcap refused the datagrams: $(cat "$WORK/text2pcap.log")"
}

to_pcap 40000,1881 "$WORK/port.pcap"
# The Info column and expert messages, then the body fields of the good packs.
fields() {
    tshark_velto -r "$WORK/port.pcap" -T fields -E occurrence=a -E aggregator='|' $(printf -- '-e %s ' "$@")
}
{
    fields frame.number velto.id _ws.col.Info _ws.expert.message
    fields frame.number velto.objinfo.nodeid velto.objinfo.objectno velto.objinfo.ifacetype velto.objinfo.name \
        velto.objinfo.interface velto.objinfo.interfaceid velto.objinforeq.ignored velto.devlistreq.matchspecs \
        velto.devlistreq.haveobjectwithiface velto.devlist.id velto.devlist.status velto.devlist.hubid \
        velto.devlist.domain velto.error.errorcode velto.error.opterormsg velto.signature velto.pingpong.replykey \
        velto.join.generalflags velto.join.generalflags.haveconfigsummary velto.join.addrtype velto.join.addrvalue \
        velto.joinaccepted.sessionkey velto.objectinfo.lnparam
} >"$WORK/fields.txt"
tshark_velto -r "$WORK/port.pcap" -V >"$WORK/verbose.txt"
! grep -q "Lua Error" "$WORK/verbose.txt" || fail "Lua Error in the packet tree"
[ -z "${UPDATE_GOLDEN:-}" ] || cp "$WORK/fields.txt" "$HERE/datagrams.golden"
diff -u "$HERE/datagrams.golden" "$WORK/fields.txt" || fail "fields differ from datagrams.golden"

# Frames 6 to 11 are the malformed ones: Wireshark counts each as malformed
# through an expert item of the dissector, and no other frame.
frames() { tshark_velto -r "$1" -Y "$2" -T fields -e frame.number | tr '\n' ' '; }
for filter in "_ws.malformed" "_ws.expert.group == 0x07000000 && ($VELTO_MALFORMED)"; do
    GOT=$(frames "$WORK/port.pcap" "$filter")
    [ "$GOT" = "6 7 8 9 10 11 " ] || fail "frames matching $filter: [$GOT]"
done

# Other ports: well-formed packs only (not the malformed ones, nor those with
# an unknown signature type, bytes after the pack or an unknown pack), and not
# a datagram of another protocol (frame 20).
to_pcap 40000,40001 "$WORK/other.pcap" "$(printf 'hello, world' | od -An -tx1 -v | tr -d ' \n')"
HEURISTIC=$(frames "$WORK/other.pcap" velto)
[ "$HEURISTIC" = "1 2 3 4 5 12 15 16 18 19 " ] || fail "heuristic took frames [$HEURISTIC]"
echo "PASS"
