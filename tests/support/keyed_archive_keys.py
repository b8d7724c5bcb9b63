#!/usr/bin/env python3
"""Reads a keyed archive with the standard library alone and prints what a reader
on another system would see: the root object's class, then the keys of the root
dictionary, one per line, sorted. Data keys are printed as hex with a "0x" prefix.
Exits non-zero when the archive does not follow the keyed-archive layout."""
import plistlib
import sys


def main(path):
    with open(path, "rb") as f:
        raw = f.read()
    if not raw.startswith(b"bplist00"):
        sys.exit("not a binary property list")
    archive = plistlib.loads(raw)
    if archive.get("$archiver") != "NSKeyedArchiver":
        sys.exit("unexpected $archiver")
    if archive.get("$version") != 100000:
        sys.exit("unexpected $version")
    objects = archive["$objects"]
    if objects[0] != "$null":
        sys.exit("$objects[0] is not $null")

    def deref(uid):
        if not isinstance(uid, plistlib.UID):
            sys.exit("expected a UID, got %r" % (uid,))
        return objects[uid.data]

    root = deref(archive["$top"]["root"])
    cls = deref(root["$class"])
    print(cls["$classname"])
    if cls["$classes"][-1] != "NSObject":
        sys.exit("class list does not end in NSObject")
    keys = [deref(k) for k in root["NS.keys"]]
    values = root["NS.objects"]
    if len(keys) != len(values):
        sys.exit("keys and values differ in number")
    for value in values:
        deref(value)
    shown = [k if isinstance(k, str) else "0x" + bytes(k).hex() for k in keys]
    for k in sorted(shown):
        print(k)


if __name__ == "__main__":
    main(sys.argv[1])
