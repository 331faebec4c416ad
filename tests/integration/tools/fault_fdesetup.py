#!/usr/bin/python3
# Stands in for an fdesetup that misbehaves. Each verb (list, authrestart)
# does what the word in <verb>.mode beside this file says; without one it works:
# list prints list.out, authrestart takes its input and succeeds.
#   crash    authrestart first says whom it was arming with what; then it dies of SIGSEGV
#   hang     sleeps far past any time limit
#   garbage  list prints bytes no fdesetup would: invalid UTF-8, control characters
#   nul      the same with a NUL byte in it
#   fill     authrestart fills the file system that holds the file named in
#            fill.target, then succeeds
import os
import plistlib
import signal
import sys
import time

here = os.path.dirname(os.path.abspath(__file__))
GARBAGE = {
    "garbage": b"\xff\xfe\x01garbage\x1b[2J\r\n\xc3\x28,\xa0\xa1\n\n\t \n",
    "nul": b"\xff\xfe\x00\x01garbage\x1b[2J\r\n\xc3\x28,\xa0\xa1\n\n\t \n",
}


def setting(name):
    try:
        with open(os.path.join(here, name), "rb") as f:
            return f.read()
    except FileNotFoundError:
        return b""


def fill(path):
    with open(path, "ab", buffering=0) as f:
        for chunk in (65536, 1):
            try:
                while f.write(b"\0" * chunk):
                    pass
            except OSError:
                pass


verb = sys.argv[1] if len(sys.argv) > 1 else ""
mode = setting(verb + ".mode").decode().strip()
document = plistlib.loads(sys.stdin.buffer.read()) if verb == "authrestart" else {}
if mode == "hang":
    time.sleep(3600)
if mode == "crash":
    if document:
        sys.stderr.write("fdesetup: authrestart refused %s with %s\n" % (document["Username"], document["Password"]))
        sys.stderr.flush()
    os.kill(os.getpid(), signal.SIGSEGV)
if verb == "list":
    sys.stdout.buffer.write(GARBAGE.get(mode) or setting("list.out"))
    sys.exit(0)
if verb == "authrestart":
    if mode == "fill":
        fill(setting("fill.target").decode())
    sys.exit(0)
sys.exit(97)
