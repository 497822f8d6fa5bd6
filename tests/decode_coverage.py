#!/usr/bin/env python3
"""How far quon decodes real traces: per trace, the share of event rows with at
least one field under a real name, the share decoded exactly (named, nothing
left to the guessing engine), and the rows where a layout left 4 or more bytes
to the guesser, grouped by provider, event and version.

    tests/decode_coverage.py <quon> <trace or folder> [...] [--groups N]

It reads quon's -jsonl rows. A field counts as named when its name doesn't
start with "guess_" and it isn't one of the extended items shown ahead of the
payload (related activity "guid", "sid", "stack[n]"); a label (the layout's event name, shown as "{guess}" when
the guesser takes over behind it) is not a field. The bytes left to the
guesser are estimated from the guessed fields: 1, 2, 4 or 8 bytes for the
numbers, 8 for times, the text and its terminator for strings, 8 or more for
a SID. Not run by the tests: a measuring tool for data changes.
"""
import collections
import json
import os
import subprocess
import sys

SIZES = {"guess_byte": 1, "guess_uint16": 2, "guess_uint32": 4, "guess_uint64": 8,
         "guess_filetime": 8, "guess_systime": 16, "guess_sid": 12}


def is_extended(name):
    """Fields of the extended items ahead of the payload: not payload fields."""
    return name in ("guid", "sid") or (name.startswith("stack[") and name.endswith("]"))


def guessed_bytes(name, value):
    base = name.split("#")[0]
    if base in SIZES:
        return SIZES[base]
    if base == "guess_ascii":
        return len(str(value).encode("utf-8", "replace")) + 1
    if base == "guess_utf16":
        return 2 * (len(str(value)) + 1)
    return 0


def traces(paths):
    for p in paths:
        if os.path.isdir(p):
            for root, _, files in sorted(os.walk(p)):
                for f in sorted(files):
                    if f.endswith(".etl"):
                        yield os.path.join(root, f)
        else:
            yield p


def measure(quon, path, groups):
    out = subprocess.run([quon, "-log", path, "-jsonl", "-quiet"], capture_output=True).stdout
    rows = named = exact = leftover = 0
    for line in out.splitlines():
        try:
            row = json.loads(line)
        except ValueError:
            continue
        if row.get("damaged") or "fields" not in row or row.get("event_id") is None:
            continue
        rows += 1
        fields = row["fields"] or {}
        real = [k for k, v in fields.items()
                if not k.startswith("guess_") and v != "{guess}" and not is_extended(k)]
        guesses = [(k, v) for k, v in fields.items() if k.startswith("guess_")]
        if real:
            named += 1
            if not guesses:
                exact += 1
            left = sum(guessed_bytes(k, v) for k, v in guesses)
            if left >= 4:
                leftover += 1
                key = (row.get("provider_name") or row.get("provider_guid"), row.get("event_id"),
                       row.get("version"))
                groups[key] += 1
    return rows, named, exact, leftover


def main():
    args = sys.argv[1:]
    show = 15
    if "--groups" in args:
        i = args.index("--groups")
        show = int(args[i + 1])
        del args[i:i + 2]
    if len(args) < 2:
        print(__doc__)
        return 2
    quon = args[0]
    groups = collections.Counter()
    total = [0, 0, 0, 0]
    print("| trace | event rows | named | exact | layout left >= 4 bytes |")
    print("|---|---:|---:|---:|---:|")
    for path in traces(args[1:]):
        rows, named, exact, left = measure(quon, path, groups)
        for i, v in enumerate((rows, named, exact, left)):
            total[i] += v
        pct = lambda n: "%.1f %%" % (100.0 * n / rows) if rows else "-"
        print("| %s | %d | %s | %s | %d |" % (os.path.basename(path), rows, pct(named), pct(exact), left))
    rows = total[0] or 1
    print("| all | %d | %.1f %% | %.1f %% | %d |" % (total[0], 100.0 * total[1] / rows,
                                                   100.0 * total[2] / rows, total[3]))
    if groups:
        print("\nlargest groups where a layout left 4 or more bytes (provider, event, version):")
        for (p, e, v), n in groups.most_common(show):
            print("  %6d  %s %s v%s" % (n, p, e, v))
    return 0


if __name__ == "__main__":
    sys.exit(main())
