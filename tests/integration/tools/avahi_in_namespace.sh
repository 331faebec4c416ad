#!/bin/sh
# Run inside a fresh network, mount and UTS namespace: names the machine, gives
# it a private /run, its own D-Bus system bus and an avahi-daemon on one
# interface, says "ready" and stays until SIGTERM, which stops them too (so
# does SIGKILL, through their parent-death signal).
# Usage: avahi_in_namespace.sh DIR HOSTNAME INTERFACE
set -eu
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
dir=$1 name=$2 interface=$3

echo $$ >"$dir/pid"
hostname "$name"
# avahi keeps its pid file and socket under /run; two must not meet there.
mount -t tmpfs -o mode=0755 tmpfs /run
mkdir /run/avahi-daemon

cat >"$dir/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$dir/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
CONF
cat >"$dir/avahi.conf" <<CONF
[server]
host-name=$name
allow-interfaces=$interface
use-ipv4=yes
use-ipv6=yes
enable-dbus=yes
[wide-area]
enable-wide-area=no
[publish]
publish-workstation=no
publish-hinfo=no
CONF

setpriv --pdeathsig KILL dbus-daemon --config-file="$dir/bus.conf" --nofork \
  --address="unix:path=$dir/bus" &
bus=$!
trap 'kill $bus ${avahi:-} 2>/dev/null; wait; exit 0' TERM
tries=0
until [ -S "$dir/bus" ]; do
  tries=$((tries + 1))
  if [ $tries -gt 200 ] || ! kill -0 $bus 2>/dev/null; then echo "dbus-daemon did not start"; exit 1; fi
  sleep 0.05
done

export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$dir/bus"
setpriv --pdeathsig KILL avahi-daemon --no-drop-root --no-chroot --no-rlimits --no-proc-title \
  -f "$dir/avahi.conf" >"$dir/avahi.log" 2>&1 &
avahi=$!
tries=0
until grep -q "Server startup complete" "$dir/avahi.log"; do
  tries=$((tries + 1))
  if [ $tries -gt 300 ] || ! kill -0 $avahi 2>/dev/null; then
    echo "avahi-daemon did not start:"; cat "$dir/avahi.log"; exit 1
  fi
  sleep 0.05
done
echo ready
wait
