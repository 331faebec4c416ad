#!/bin/sh
# Stands in for `fdesetup list`. It must get exactly "list" and an empty
# environment (the shell itself adds PWD); anything else fails loudly, and the
# failure reaches the test as the user list's unavailable reason.
/bin/echo "$*" >>"${0%/*}/invocations.log"
if [ "$#" -ne 1 ] || [ "$1" != "list" ]; then
  echo "fdesetup stand-in: expected the one argument 'list', got: $*" >&2
  exit 97
fi
leaked=$(/usr/bin/env | /bin/grep -v '^PWD=')
if [ -n "$leaked" ]; then
  echo "fdesetup stand-in: the environment is not empty: $leaked" >&2
  exit 98
fi
echo "alice,5B6C1E8A-0F5E-4E2B-9C1D-3A2B1C0D9E8F"
echo "bob"
