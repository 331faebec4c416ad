#!/bin/sh
# Run inside fresh network, mount and UTS namespaces: names the machine, gives it
# a private /run, its own D-Bus system bus and an avahi-daemon on one interface,
# says "ready" and stays until SIGTERM, which stops them too; SIGKILL does
# through their parent-death signal.
# Usage: avahi_in_namespace.sh DIR HOSTNAME INTERFACE
set -eu
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
dir=$1 name=$2 interface=$3

printf %s $$ >"$dir/pid"
hostname "$name"
# avahi keeps its pid file and socket under /run; two must not meet there.
mount -t tmpfs -o mode=0755 tmpfs /run
mkdir /run/avahi-daemon

cat >"$dir/bus.conf" <<CONF
<busconfig>
  <type>system</type>
  <listen>unix:path=$dir/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/> <allow own="*"/> <allow send_destination="*"/> <allow receive_sender="*"/>
  </policy>
</busconfig>
CONF
printf '[server]\nhost-name=%s\nallow-interfaces=%s\n[wide-area]\nenable-wide-area=no\n' "$name" "$interface" \
  >"$dir/avahi.conf"

# Until the test in $1 holds; gives up after 15 s or once process $2 is gone.
await() {
  for _ in $(seq 300); do
    eval "$1" && return 0
    kill -0 "$2" 2>/dev/null || break
    sleep 0.05
  done
  echo "$3 did not start:"; cat "$dir/avahi.log" 2>/dev/null; exit 1
}

setpriv --pdeathsig KILL dbus-daemon --config-file="$dir/bus.conf" --nofork &
bus=$!
trap 'kill $bus ${avahi:-} 2>/dev/null; wait; exit 0' TERM
await '[ -S "$dir/bus" ]' $bus dbus-daemon

export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$dir/bus"
setpriv --pdeathsig KILL avahi-daemon --no-drop-root --no-chroot --no-rlimits --no-proc-title \
  -f "$dir/avahi.conf" >"$dir/avahi.log" 2>&1 &
avahi=$!
await 'grep -q "Server startup complete" "$dir/avahi.log"' $avahi avahi-daemon
echo ready
wait
