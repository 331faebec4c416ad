#!/bin/sh
# Stands in for systemd-creds: the real tool, unless <verb>.mode beside this
# file (verb encrypt or decrypt) says to crash, hang, or answer with garbage.
PATH=/usr/bin:/bin
case $(cat "${0%/*}/$1.mode" 2>/dev/null) in
  crash) kill -SEGV $$ ;;
  hang) exec sleep 3600 ;;
  garbage) cat >/dev/null; printf '\377\376garbage\000<plist>\n'; exit 0 ;;
esac
exec /usr/bin/systemd-creds "$@"
