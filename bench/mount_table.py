#!/usr/bin/env python3
"""The table of bench/mount.sh: "SUBJECT,ROW seconds..." lines on standard input, the best of each out."""
import sys

mibytes = int(sys.argv[1])
rows, subjects = sys.argv[2].split(), sys.argv[3].split()
taken = {}
for line in sys.stdin:
    key, *values = line.split()
    taken[tuple(key.split(","))] = min(map(float, values))

print(f"{'':12}{'vrkfs':>16}" + "".join(f"{'against ' + subject:>22}" for subject in subjects[1:]))
for row in rows:
    own = taken[subjects[0], row]
    rate = f"{mibytes / own:.0f} MiB/s" if row.startswith(("read", "write")) else f"{2000 / own / 1000:.1f} k/s"
    print(f"{row:12}{rate:>16}" + "".join(f"{taken[subject, row] / own:>21.2f}x" for subject in subjects[1:]))
print("Times as fast as the other; the best of all rounds.")
