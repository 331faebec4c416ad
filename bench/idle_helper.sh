#!/bin/sh
# What an idle harborkeeper-helper costs: resident memory after one request,
# and CPU time and wake-ups over a quiet window. An idle daemon sleeps in
# accept and read, so the window must show no CPU tick and no wake-up at all.
#
#   bench/idle_helper.sh [BIN_DIR]     (default build/default/bin; needs root)
set -eu

bin_dir=$(realpath "${1:-build/default/bin}")
helper="$bin_dir/harborkeeper-helper"
cli="$bin_dir/harborkeeper"
window=10
[ "$(id -u)" -eq 0 ] || { echo "idle_helper.sh: needs root" >&2; exit 2; }
[ -x "$helper" ] && [ -x "$cli" ] || { echo "idle_helper.sh: build harborkeeper-helper and harborkeeper first" >&2; exit 2; }

dir=$(mktemp -d /tmp/harborkeeper-idle-XXXXXX)
pid=
cleanup() {
  [ -n "$pid" ] && kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
  rm -rf "$dir"
}
trap cleanup EXIT INT TERM

mkdir -m 0700 "$dir/state"
cat >"$dir/trusted-clients.plist" <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><array><dict>
  <key>path</key><string>$cli</string>
  <key>identifier</key><string>com.lumaq.Harborkeeper</string>
  <key>teamIdentifier</key><string>K4T8QW17ZD</string>
</dict></array></plist>
EOF
chmod 0644 "$dir/trusted-clients.plist"

"$helper" --socket "$dir/helper.sock" --state-dir "$dir/state" --trusted-clients "$dir/trusted-clients.plist" \
  --tool fdesetup=/bin/false --tool pmset=/bin/true --log stderr 2>"$dir/helper.log" &
pid=$!
tries=0
until [ -S "$dir/helper.sock" ] && "$cli" --socket "$dir/helper.sock" version >/dev/null 2>&1; do
  tries=$((tries + 1))
  [ "$tries" -lt 200 ] || { echo "idle_helper.sh: the daemon did not answer:" >&2; cat "$dir/helper.log" >&2; exit 1; }
  sleep 0.05
done
sleep 5
rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status")

# utime + stime of the whole process (fields 14 and 15, after the parenthesised name).
ticks() { sed 's/.*) //' "/proc/$pid/stat" | awk '{ print $12 + $13 }'; }
# Context switches of every thread: each wake-up of a thread counts one.
switches() { cat /proc/"$pid"/task/*/status | awk '/ctxt_switches/ { n += $2 } END { print n }'; }

ticks_before=$(ticks)
switches_before=$(switches)
sleep "$window"
idle_ticks=$(($(ticks) - ticks_before))
wakeups=$(($(switches) - switches_before))
threads=$(ls "/proc/$pid/task" | wc -l)

echo "idle RSS: $rss KiB (target < 8192)"
echo "idle CPU: $idle_ticks ticks in ${window} s (target 0)"
echo "idle wake-ups: $wakeups in ${window} s (target 0; $threads threads)"
[ "$rss" -lt 8192 ] && [ "$idle_ticks" -eq 0 ] && [ "$wakeups" -eq 0 ]
