#!/bin/sh
# 1 MiB of "e" on stderr, then 10 MiB of "o" on stdout: a runner that reads one
# pipe to its end before the other blocks this tool.
/usr/bin/head -c 1048576 /dev/zero | /usr/bin/tr '\0' e >&2
/usr/bin/head -c 10485760 /dev/zero | /usr/bin/tr '\0' o
