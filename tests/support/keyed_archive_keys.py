#!/usr/bin/env python3
"""Reads a keyed archive with the standard library alone and prints what a reader
on another system would see: the root object's class, then the keys of the root
dictionary, one per line, sorted, each with the text of a URL value ("NS.relative")
or the time of a date value ("NS.time") after a space. Data keys are printed as hex
with a "0x" prefix. Exits non-zero when the archive does not follow the keyed-archive
layout, or a class list does not end in NSObject."""
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
    lines = []
    for key, ref in zip(keys, values):
        value = deref(ref)
        line = key if isinstance(key, str) else "0x" + bytes(key).hex()
        if isinstance(value, dict) and "$class" in value:
            if deref(value["$class"])["$classes"][-1] != "NSObject":
                sys.exit("class list does not end in NSObject")
            if "NS.relative" in value:
                line += " " + deref(value["NS.relative"])
            if "NS.time" in value:
                line += " %r" % value["NS.time"]
        lines.append(line)
    for line in sorted(lines):
        print(line)


if __name__ == "__main__":
    main(sys.argv[1])
