#!/usr/bin/python3
# Stands in for fdesetup: `list` and `authrestart -inputplist -delayminutes -1`.
# What each run answers comes from files beside it (<verb>.out, .err, .exit);
# every run's arguments and initial environment are recorded, and what
# authrestart received, once checked, too. The test reads them back.
import json
import os
import plistlib
import sys

here = os.path.dirname(os.path.abspath(__file__))


def setting(name, default):
    path = os.path.join(here, name)
    if not os.path.exists(path):
        return default
    with open(path, encoding="utf-8") as f:
        return f.read()


def record(name, line):
    with open(os.path.join(here, name), "a", encoding="utf-8") as f:
        f.write(line + "\n")


def answer(verb):
    sys.stdout.write(setting(verb + ".out", ""))
    sys.stderr.write(setting(verb + ".err", ""))
    sys.exit(int(setting(verb + ".exit", "0")))


arguments = sys.argv[1:]
record("invocations.log", " ".join(arguments))
# The environment we were started with, before Python adds to it.
with open("/proc/self/environ", "rb") as f:
    record("environment.log", json.dumps([v.decode("utf-8", "replace") for v in f.read().split(b"\0") if v]))

if arguments == ["list"]:
    answer("list")
if arguments == ["authrestart", "-inputplist", "-delayminutes", "-1"]:
    data = sys.stdin.buffer.read()
    try:
        if not data.startswith(b"<?xml"):
            raise ValueError("not XML")
        document = plistlib.loads(data, fmt=plistlib.FMT_XML)
        if sorted(document) != ["Password", "Username"] or not all(isinstance(v, str) for v in document.values()):
            raise ValueError("not exactly Username and Password strings")
    except Exception as error:  # noqa: BLE001 - any defect is the finding
        sys.stderr.write("fdesetup stand-in: bad input property list: %s\n" % error)
        sys.exit(96)
    record("authrestart.received", json.dumps(document))
    answer("authrestart")
sys.stderr.write("fdesetup stand-in: unexpected arguments: %s\n" % " ".join(arguments))
sys.exit(97)
