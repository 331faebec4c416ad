"""Decodes a binary property list file with plistlib; prints it as JSON.

A second, independent reader of what the daemon sends: the bytes must be a
binary property list that Python's own decoder accepts.
"""
import json
import plistlib
import sys


def main() -> int:
    with open(sys.argv[1], "rb") as source:
        data = source.read()
    if not data.startswith(b"bplist00"):
        print("not a binary property list", file=sys.stderr)
        return 1
    json.dump(plistlib.loads(data, fmt=plistlib.FMT_BINARY), sys.stdout, sort_keys=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
