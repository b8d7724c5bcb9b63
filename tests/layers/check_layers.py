#!/usr/bin/env python3
"""The layer rule, tried against the real build: for every layer, a probe that
includes a header of each layer it may use must compile with that layer's own
compiler flags, and a probe that includes a header of a layer above it (or
beside it) must fail to compile. Reads compile_commands.json of a build tree.

usage: check_layers.py <build dir> <source dir>
"""
import json
import os
import shlex
import subprocess
import sys
import tempfile

# Bottom to top; a layer may include its own headers and those of the layers
# listed as below it, nothing else.
LAYERS = {
    "toolkit": [],
    "sys": ["toolkit"],
    "vault": ["toolkit", "sys"],
    "notify": ["toolkit", "sys", "vault"],
    "disk": ["toolkit", "sys", "vault", "notify"],
    "tasks": ["toolkit", "sys", "vault", "notify", "disk"],
    "automation": ["toolkit", "sys", "vault", "notify", "disk", "tasks"],
    "deniability": ["toolkit", "sys", "vault", "notify", "disk", "tasks"],
    "app": ["toolkit", "sys", "vault", "notify", "disk", "tasks", "automation", "deniability"],
    # The desktop application's screens, over everything.
    "ui": ["toolkit", "sys", "vault", "notify", "disk", "tasks", "automation", "deniability", "app"],
    # The disk-image utility is a program of its own beside the core.
    "image": ["toolkit", "sys", "vault"],
}


def any_header(src, layer):
    folder = os.path.join(src, "src", layer)
    headers = []
    for root, _, files in os.walk(folder):
        rel = os.path.relpath(root, folder)
        headers += [h if rel == "." else f"{rel}/{h}" for h in files if h.endswith(".h")]
    return f"{layer}/{sorted(headers)[0]}" if headers else None


def command_for(commands, src, layer):
    prefix = os.path.join(src, "src", layer) + "/"
    for entry in commands:
        if entry["file"].startswith(prefix):
            return entry
    return None


def compiles(entry, include, workdir):
    probe = os.path.join(workdir, "probe.cpp")
    with open(probe, "w") as f:
        f.write(f'#include "{include}"\nint qvLayerProbe;\n')
    args = shlex.split(entry["command"])
    out = []
    skip = False
    for a in args:
        if skip:
            skip = False
            continue
        if a == "-o":
            skip = True
            continue
        if a == "-c" or a == entry["file"]:
            continue
        out.append(a)
    out += ["-fsyntax-only", probe]
    return subprocess.run(out, cwd=entry["directory"], capture_output=True).returncode == 0


def main():
    build, src = sys.argv[1], os.path.abspath(sys.argv[2])
    with open(os.path.join(build, "compile_commands.json")) as f:
        commands = json.load(f)
    failures = []
    checked = 0
    with tempfile.TemporaryDirectory() as workdir:
        for layer, below in LAYERS.items():
            entry = command_for(commands, src, layer)
            if entry is None:
                continue
            for other in LAYERS:
                header = any_header(src, other)
                if header is None:
                    continue
                allowed = other == layer or other in below
                if compiles(entry, header, workdir) != allowed:
                    failures.append(f"{layer} including {header}: " + ("refused" if allowed else "compiled"))
                checked += 1
    for line in failures:
        print("FAIL", line)
    print(f"{checked - len(failures)} passed, {len(failures)} failed")
    return 1 if failures or checked == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
