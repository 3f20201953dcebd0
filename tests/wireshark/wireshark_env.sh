# Sourced by the dissector tests: a scratch directory, empty Wireshark
# configuration and home directories (so no user profile changes the output),
# and tshark with the dissector loaded, failing on anything on its stderr.
WORK=$(mktemp -d)
export WIRESHARK_CONFIG_DIR=$WORK/wireshark-config HOME=$WORK/home
mkdir -p "$WIRESHARK_CONFIG_DIR" "$HOME"
VELTO_LUA=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../tools/wireshark" && pwd)/velto.lua
# The dissector's own marks of malformed input.
VELTO_MALFORMED="velto.expert.short || velto.expert.toolong || velto.expert.array || velto.expert.body || velto.expert.fault"

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

tshark_velto() {
    local err=$WORK/tshark.err
    tshark -X lua_script:"$VELTO_LUA" "$@" 2>"$err" || fail "tshark $*: $(cat "$err")"
    # As root tshark warns that it runs as root; anything else is a fault.
    sed -i '/^Running as user "root" and group "root"\. This could be dangerous\.$/d' "$err"
    [ ! -s "$err" ] || fail "tshark $* wrote to stderr: $(cat "$err")"
}
