#!/bin/sh
# Stays alive through SIGTERM; its sleep inherits the ignored signal too.
trap '' TERM
echo started
echo "this error output is discarded" >&2
/bin/sleep 30
echo "never reached"
