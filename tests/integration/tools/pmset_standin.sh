#!/bin/sh
# Stands in for pmset: records its arguments and environment, refuses anything
# but "-a autorestart 1" and a standard input with nothing on it, then behaves
# as the word in pmset.mode beside it says.
here=$(dirname "$0")
echo "$*" >> "$here/pmset.runs"
env >> "$here/pmset.env"
if [ "$*" != "-a autorestart 1" ]; then echo "unexpected arguments: $*" >&2; exit 64; fi
if [ -n "$(cat)" ]; then echo "unexpected input" >&2; exit 65; fi
case $(cat "$here/pmset.mode" 2>/dev/null) in
  stdout) echo "  pmset: only said on standard output  "; exit 1 ;;
  stderr) echo "on stdout"; echo "pmset: must be run as root" >&2; exit 1 ;;
  silent) exit 4 ;;
  *) echo "autorestart set"; exit 0 ;;
esac
