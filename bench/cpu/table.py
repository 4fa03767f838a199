#!/usr/bin/env python3
"""Prints figures as a table for a document. usage: table.py FIGURES.json"""
import json
import statistics
import sys

from plot import NAMES, TITLES
from report import OURS, range_of


def main(path):
    with open(path) as f:
        figures = json.load(f)
    time = "cpu" if figures["threads"] == 1 else "wall"
    engines = [e for e in NAMES if any(e in r["engines"] for r in figures["networks"].values())]
    peers = [e for e in engines if e != OURS]
    versions = {e: r["version"] for n in figures["networks"].values() for e, r in n["engines"].items()}
    print("%s, threads: %d, rounds: %d; %s" % (figures["processor"], figures["threads"], figures["rounds"],
                                              ", ".join("%s %s" % (NAMES[e], versions[e]) for e in peers)))
    print("\n| Network | %s | to the fastest other | of the FMA peak | to load | memory | least memory of others |"
          % " | ".join(NAMES[e] for e in engines))
    print("|---" * (len(engines) + 6) + "|")
    for name, result in figures["networks"].items():
        rows, ours = result["engines"], result["engines"][OURS]
        others = [rows[e] for e in peers if e in rows]
        if not others:
            continue
        cells = ["%.1f ms" % rows[e][time] if e in rows else "" for e in engines]
        cells += [range_of(result["ratios"]), "%.0f%%" % (100 * ours["part_of_peak"]),
                  "%.2f" % statistics.median(result["load_ratios"]), "%.0f MB" % (ours["peak"] / 1e6),
                  "%.0f MB" % (min(r["peak"] for r in others) / 1e6)]
        print("| %s | %s |" % (TITLES.get(name, name), " | ".join(cells)))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
