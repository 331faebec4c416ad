#!/bin/sh
# Like leaves_grandchild.sh, but the child moves to its own session, out of
# reach of the tool's process group. Optional first argument: seconds to stay.
/usr/bin/setsid /bin/sleep 30 &
echo "$!"
/bin/sleep "${1:-0}"
exit 4
