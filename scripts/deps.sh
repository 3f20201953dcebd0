# Installs the Debian packages the build, the tests and the hub need, and only
# those that are missing. Sourced by run.sh and test.sh.

VELTO_PACKAGES="cmake make g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libexpat1-dev libcurl4-openssl-dev iproute2 util-linux"
# strace: the test of the synced join record traces the hub's system calls.
VELTO_PACKAGES="$VELTO_PACKAGES strace"
# The MQTT bridge (client library, JSON) and its tests (broker, command-line clients).
VELTO_PACKAGES="$VELTO_PACKAGES libmosquitto-dev mosquitto mosquitto-clients nlohmann-json3-dev"

missing_packages() {
    local pkg missing=""
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing="$missing $pkg"
    done
    echo "$missing"
}

ensure_packages() {
    local missing
    missing=$(missing_packages "$@")
    [ -z "$missing" ] && return 0
    echo "Installing:$missing"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq || return 1
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq $missing || return 1
}

# Packaging and its checks: systemd-analyze (systemd), the package tools
# (dpkg-shlibdeps in dpkg-dev, file), lintian, and groff for the man pages.
VELTO_PACKAGES="$VELTO_PACKAGES systemd dpkg-dev file lintian groff-base"
# tshark and dumpcap for the dissector tests. wireshark-common asks whether
# non-root users may capture: answer no before apt asks.
preseed_tshark() {
    [ -n "$(missing_packages tshark)" ] || return 0
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    echo "wireshark-common wireshark-common/install-setuid boolean false" | $sudo debconf-set-selections || true
}
preseed_tshark
VELTO_PACKAGES="$VELTO_PACKAGES tshark"
