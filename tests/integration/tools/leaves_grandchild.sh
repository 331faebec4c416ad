#!/bin/sh
# Ends at once but leaves a sleeping child that still holds stdout and stderr.
/bin/sleep 30 &
echo "$!"
echo "tool done" >&2
exit 3
