#!/bin/sh
# Packaging checks, run by CTest from the build directory's own tree:
#   the units verify with no output at all (their ExecStart pointed at the
#   built programs), the hub's unit scores 2.0 or less on the offline security
#   analysis, every man page lints clean, and the Debian package builds, lists
#   the programs, units, sysusers file and man pages, computed its
#   dependencies, and lintian finds no error in it.
# Usage: check_packaging.sh SOURCE_DIR BUILD_DIR HUB_BIN [MQTT_BIN]
set -u
src=$1 build=$2 hub=$3 mqtt=${4:-}
work=$(mktemp -d /tmp/velto-packaging.XXXXXX)
trap 'rm -rf "$work"' EXIT
status=0
fail() { echo "FAIL: $*"; status=1; }

# Units: the bridge's unit runs /bin/true where the bridge is not built.
mkdir "$work/units"
for in in "$src"/packaging/systemd/*.service.in; do
    unit=$(basename "$in" .in)
    prog="$hub"
    [ "$unit" = velto-mqtt.service ] && prog=${mqtt:-/bin/true}
    sed -e "s|^ExecStart=@VELTO_S\{0,1\}BINDIR@/[^ ]*|ExecStart=$prog|" -e "s|@VELTO_SYSCONFDIR@|/etc|g" \
        "$in" > "$work/units/$unit"
    out=$(cd "$work/units" && systemd-analyze verify --man=no "$unit" 2>&1) || fail "verify $unit exited non-zero"
    [ -z "$out" ] || fail "systemd-analyze verify $unit: $out"
done
level=$(cd "$work/units" && systemd-analyze security --offline=true velto-hub.service 2>&1 |
        sed -n 's/.*Overall exposure level for velto-hub.service: \([0-9.]*\).*/\1/p')
echo "velto-hub.service exposure: ${level:-none}"
[ -n "$level" ] && awk "BEGIN { exit !($level <= 2.0) }" || fail "exposure ${level:-unknown} above 2.0"

for page in "$src"/packaging/man/*.[18]; do
    out=$(groff -man -ww -z "$page" 2>&1)
    [ -z "$out" ] || fail "groff $(basename "$page"): $out"
done

# The package, from this build directory's programs.
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/pkg" > "$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack"; }
deb=$(ls "$work"/pkg/velto_*.deb 2>/dev/null | head -n 1)
[ -n "$deb" ] || { fail "no package"; exit 1; }
dpkg-deb -c "$deb" | awk '{ print $6 }' > "$work/contents"
want="./usr/sbin/velto-hub ./usr/bin/velto-device ./lib/systemd/system/velto-hub.service
      ./usr/lib/sysusers.d/velto.conf ./usr/share/doc/velto/copyright ./usr/share/doc/velto/changelog.gz"
for page in "$src"/packaging/man/*.[18]; do
    name=$(basename "$page")
    want="$want ./usr/share/man/man${name##*.}/$name.gz"
done
[ -n "$mqtt" ] && want="$want ./usr/bin/velto-mqtt ./lib/systemd/system/velto-mqtt.service ./etc/velto/velto-mqtt.env"
for f in $want; do
    grep -qx -- "$f" "$work/contents" || fail "package lacks $f"
done
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
case "$depends" in *adduser*libc6*) ;; *) fail "dependencies not computed: $depends" ;; esac
dpkg-deb -e "$deb" "$work/control"
for script in postinst prerm postrm; do
    [ -x "$work/control/$script" ] || fail "no $script"
done
[ -z "$mqtt" ] || grep -qx /etc/velto/velto-mqtt.env "$work/control/conffiles" || fail "conffiles"

lint=$(lintian --fail-on error "$deb" 2>&1) || fail "lintian: $lint"
echo "$lint" | grep '^E:' && fail "lintian errors"
[ $status -eq 0 ] && echo "packaging checks passed"
exit $status
