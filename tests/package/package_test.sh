#!/usr/bin/env bash
# Builds the Debian package, unpacks it into a temporary root and checks that the installed
# programs work: `kestrix --headless --simulate` from the root serves `ksxctl pay` to completion,
# with the coins inserted through the installed `kestrix-sim ctl`.
#
#   package_test.sh CPACK BUILD_DIR
set -euo pipefail

cpack=$1
build=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/ksx-package.XXXXXX")
engine=""
cleanup() {
    if [ -n "$engine" ] && kill -0 "$engine" 2>/dev/null; then
        kill -TERM "$engine" 2>/dev/null || true
        wait "$engine" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*" >&2
    for log in "$work"/*.log; do
        [ -f "$log" ] && { echo "--- $log" >&2; tail -n 30 "$log" >&2; }
    done
    exit 1
}

# --- The package ------------------------------------------------------------------------------
start=$(date +%s%N)
"$cpack" --config "$build/CPackConfig.cmake" -G DEB -B "$work/out" > "$work/cpack.log" 2>&1 ||
    fail "cpack failed"
deb=$(ls "$work"/out/kestrix_*.deb 2>/dev/null | head -n 1)
[ -n "$deb" ] || fail "no kestrix_*.deb made"
case $(basename "$deb") in
    kestrix_*.*.*-[0-9]*_*.deb) ;;
    *) fail "no Debian revision in $(basename "$deb")" ;;
esac
echo "package: $(basename "$deb"), $(stat -c %s "$deb") bytes, built in $((($(date +%s%N) - start) / 1000000)) ms"

dpkg-deb --field "$deb" Package | grep -qx kestrix || fail "package name"
dpkg-deb --field "$deb" Depends | grep -q libqt6serialport6 || fail "Qt dependencies missing"

root=$work/root
dpkg -x "$deb" "$root"
for f in usr/bin/kestrix usr/bin/kestrix-headless usr/bin/kestrix-sim usr/bin/ksxctl; do
    [ -x "$root/$f" ] || fail "$f missing or not executable"
done
desktop=$root/usr/share/applications/kestrix.desktop
[ -f "$desktop" ] || fail "desktop entry missing"
grep -qx 'Exec=kestrix' "$desktop" || fail "desktop entry does not start the console"
grep -qx 'Type=Application' "$desktop" || fail "desktop entry type"
[ -f "$root/usr/share/icons/hicolor/scalable/apps/kestrix.svg" ] || fail "icon missing"
unit=$root/usr/lib/systemd/user/kestrix.service
[ -f "$unit" ] || fail "systemd user unit missing"
grep -qx 'ExecStart=/usr/bin/kestrix --headless' "$unit" || fail "unit: $(grep ExecStart "$unit")"
grep -qx 'Restart=on-failure' "$unit" || fail "unit does not restart on failure"
grep -qx 'WantedBy=default.target' "$unit" || fail "unit cannot be enabled"
for doc in README.md host-integration.md operations.md copyright changelog.Debian.gz; do
    [ -f "$root/usr/share/doc/kestrix/$doc" ] || fail "$doc not installed"
done
for program in kestrix kestrix-sim ksxctl; do
    page=$root/usr/share/man/man1/$program.1.gz
    [ -f "$page" ] || fail "no manual page for $program"
    [[ $(zcat "$page") == *'\-\-version'* ]] || fail "the manual page of $program has no options"
done
for program in kestrix-sim ksxctl; do
    completion=$root/usr/share/bash-completion/completions/$program
    [ -f "$completion" ] && bash -n "$completion" || fail "bash completion of $program"
done
"$root/usr/bin/kestrix" --version | grep -qx 'kestrix [0-9.]*' || fail "kestrix --version"

# Hardened: relocations bound at start and read-only, fortified libc calls.
for program in kestrix kestrix-headless kestrix-sim ksxctl; do
    dynamic=$(readelf -d --dyn-syms -W "$root/usr/bin/$program")
    grep -q 'BIND_NOW' <<<"$dynamic" || fail "$program: not bound now"
    grep -q '__[a-z]*_chk@' <<<"$dynamic" || fail "$program: no fortified calls"
done
# The unit's exposure as systemd rates it: 5.0 at most, without losing the serial ports (no
# PrivateDevices=) or the store (its directory writable).
if systemd-analyze security --help 2>/dev/null | grep -q -- --offline; then
    systemd-analyze security --offline=true --threshold=50 "$unit" > "$work/security.log" 2>&1 ||
        fail "unit exposure above 5.0: $(grep Overall "$work/security.log")"
    echo "unit: $(grep -o 'Overall exposure level.*' "$work/security.log")"
fi
grep -q '^PrivateDevices=yes' "$unit" && fail "the unit hides the serial ports"
grep -qx 'ConfigurationDirectory=kestrix' "$unit" || fail "the unit cannot write the store"
if command -v lintian > /dev/null; then
    lintian --fail-on error "$deb" > "$work/lintian.log" 2>&1 ||
        fail "lintian: $(grep '^E:' "$work/lintian.log" | head -n 5)"
    echo "lintian: $(grep -c '^E:' "$work/lintian.log") errors, $(grep -c '^W:' "$work/lintian.log") warnings"
fi

# --- The installed programs on the simulated kiosk ----------------------------------------------
export KSX_STORE=$work/KSX.db KSX_SIM_DIR=$work/sim XDG_CONFIG_HOME=$work/config
export XDG_RUNTIME_DIR=$work QT_QPA_PLATFORM=offscreen
ksxctl=$root/usr/bin/ksxctl
sim=$root/usr/bin/kestrix-sim

"$root/usr/bin/kestrix" --headless --simulate > "$work/engine.log" 2>&1 &
engine=$!
for _ in $(seq 1 300); do
    [ "$("$ksxctl" get Status BDStatus 2>/dev/null)" = OK ] &&
        [ "$("$ksxctl" get Status Tubes 2>/dev/null)" != 0 ] && break
    kill -0 "$engine" 2>/dev/null || fail "the installed engine ended"
    sleep 0.2
done
[ "$("$ksxctl" get Status BDStatus)" = OK ] || fail "the installed engine did not come up"
# Headless, the engine runs as the program without the GUI libraries.
[ "$(readlink "/proc/$engine/exe")" = "$root/usr/bin/kestrix-headless" ] ||
    fail "the headless engine runs as $(readlink "/proc/$engine/exe")"

# The customer: a coin of 10.00 whenever the payment asks for money, one at a time, until the
# credit covers the due (a coin dropped while the payment completes is credited too, and would
# change the change).
customer() {
    while :; do
        before=$("$ksxctl" get Status Credit)
        if [ "$("$ksxctl" get Status Status)" = "Insert Coins or Bills..." ] &&
            awk -v c="$before" 'BEGIN { exit !(c + 0 < 12.5) }'; then
            if "$sim" ctl "$KSX_SIM_DIR" coin 5 >> "$work/customer.log" 2>&1; then
                for _ in $(seq 1 50); do
                    [ "$("$ksxctl" get Status Credit)" != "$before" ] && break
                    sleep 0.1
                done
            fi
        fi
        sleep 0.1
    done
}
customer &
customer_pid=$!
status=0
"$ksxctl" pay 12.5 --timeout 60 > "$work/pay.log" 2>&1 || status=$?
kill "$customer_pid" 2>/dev/null || true
wait "$customer_pid" 2>/dev/null || true
[ "$status" -eq 0 ] || fail "ksxctl pay exited with $status"
grep -qx 'Status=Payment Completed' "$work/pay.log" || fail "no Payment Completed"
grep -qx 'ChangeDispensed=7.5' "$work/pay.log" || fail "change not paid"

"$ksxctl" exit
for _ in $(seq 1 150); do
    kill -0 "$engine" 2>/dev/null || break
    sleep 0.2
done
kill -0 "$engine" 2>/dev/null && fail "the engine did not end on Exit"
wait "$engine" || fail "the engine ended with status $?"
engine=""
echo "ok: the installed kestrix served ksxctl pay 12.5 (Payment Completed, change 7.5)"
