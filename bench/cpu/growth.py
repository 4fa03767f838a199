#!/usr/bin/env python3
"""Times our engine on one thread while the work grows: 1 to 16 images of 256 x 256, and one image of 1 to 16 times its
area. Sizes are fed to one model, made for 224 x 224, as an application feeds them. All are loaded on the same
core and take turns; every round has new processes, as each has its own luck with the addresses of its memory. Judged is
the process' CPU time per unit of work, by that of the smallest work run just before and after. Called by
bench/cpu/growth."""
import argparse
import json
import os
import statistics
import sys

import numpy as np

import growth_plot
import report
from drivers import Driver, commands
from measure import prepare, progress
from report import OURS

FACTORS = (2, 4, 8, 16)
ONE = ("", 1)  # the smallest work, in both directions
SMALLEST_RUNS = 5  # in each turn
TOLERANCE = 0.15  # of the time per unit of work
# The smallest input. Networks whose layers take any size, and whose strides leave maps with even sides: so Winograd's
# tiles fit them all, and the work, but for the last layer's, grows exactly as the input does.
SMALLEST = (1, 3, 256, 256)
NETWORKS = ("mobilenet", "resnet18")


def options():
    parser = argparse.ArgumentParser(prog="bench/cpu/growth", description=__doc__)
    parser.add_argument("--rounds", type=int, default=7, help="rounds; what is printed are their medians (7)")
    parser.add_argument("--nets", default=",".join(NETWORKS), help="names, separated by commas (all)")
    parser.add_argument("--json", metavar="FILE", help="write all figures")
    parser.add_argument("--plot", metavar="FILE", help="draw them as SVG")
    parser.add_argument("--check", action="store_true", help="fail where the time per unit of work is off by over 15%%")
    parser.add_argument("--programs", default="build/release", help=argparse.SUPPRESS)
    parser.add_argument("--folder", default="build/bench-growth", help=argparse.SUPPRESS)
    chosen = parser.parse_args()
    chosen.nets = chosen.nets.split(",")
    unknown = set(chosen.nets) - set(NETWORKS)
    if unknown:
        parser.error("no such network: %s; there are %s" % (", ".join(unknown), ", ".join(NETWORKS)))
    return chosen


def shapes():
    """The inputs by direction and factor. Height and width are doubled in turn."""
    n, c, h, w = SMALLEST
    yield ONE, SMALLEST
    for factor in FACTORS:
        power = factor.bit_length() - 1
        yield ("batch", factor), (n * factor, c, h, w)
        yield ("area", factor), (n, c, h << power // 2, w << (power + 1) // 2)


def write_input(path):
    """As many floats as the largest input has, of which each driver feeds the first ones."""
    floats = max(FACTORS) * int(np.prod(SMALLEST))
    (2 * np.random.default_rng(1).random(floats, "float32") - 1).tofile(path)


def cpu_time(driver, runs):
    driver.cpu.clear()
    driver.time(runs)
    return driver.cpu


def measure(name, chosen, core):
    base, network = prepare(name, chosen)
    write_input(base + ".input")
    command = commands(chosen.programs)[OURS][0]
    inputs = dict(shapes())
    times, ratios = {key: [] for key in inputs}, {key: [] for key in inputs}
    for i in range(chosen.rounds):
        drivers = {}
        try:
            progress("%s: round %d of %d" % (name, i + 1, chosen.rounds))
            for key, shape in inputs.items():
                drivers[key] = Driver(command, base, dict(network, input=shape), [core])
            before = cpu_time(drivers[ONE], SMALLEST_RUNS)[:]
            for key in [k for k in drivers if k != ONE]:
                runs = cpu_time(drivers[key], max(1, SMALLEST_RUNS // key[1]))[:]
                after = cpu_time(drivers[ONE], SMALLEST_RUNS)[:]
                times[key] += runs
                times[ONE] += after
                ratios[key].append(statistics.mean(runs) / key[1] / statistics.mean(before + after))
                before = after
        finally:
            for driver in drivers.values():
                driver.stop()
    progress("")
    result = {"input": SMALLEST, "batch": {}, "area": {}}
    for direction in ("batch", "area"):
        result[direction][1] = {"cpu": statistics.median(times[ONE]), "per_unit": 1.0, "rounds": [1.0]}
        for factor in FACTORS:
            key = direction, factor
            result[direction][factor] = {"cpu": statistics.median(times[key]),
                                         "per_unit": statistics.median(ratios[key]), "rounds": ratios[key]}
    return result


def print_network(name, result):
    print("\n%s, input %s" % (name, " x ".join(map(str, result["input"]))))
    for direction in ("batch", "area"):
        print("  %-6s %6s %12s  %s" % (direction, "times", "CPU ms", "per unit of work, to the smallest (rounds)"))
        for factor, r in result[direction].items():
            print("  %-6s %6d %12.2f  %.2f (%.2f to %.2f)" % ("", factor, r["cpu"], r["per_unit"], min(r["rounds"]),
                                                            max(r["rounds"])), flush=True)


def main():
    chosen = options()
    everything = {"processor": report.processor(), "rounds": chosen.rounds, "networks": {}}
    print("%s; 1 thread, %d rounds" % (everything["processor"], chosen.rounds))
    failures = []
    for name in chosen.nets:
        result = everything["networks"][name] = measure(name, chosen, max(os.sched_getaffinity(0)))
        print_network(name, result)
        failures += ["%s, %d times the %s: %.2f of the time per unit" % (name, factor, direction, r["per_unit"])
                     for direction in ("batch", "area") for factor, r in result[direction].items()
                     if abs(r["per_unit"] - 1) > TOLERANCE]
        if chosen.json:  # as soon as there is something to keep
            with open(chosen.json, "w") as f:
                json.dump(everything, f, indent=1)
    if chosen.plot:
        with open(chosen.plot, "w") as f:
            f.write(growth_plot.draw(everything))
    if chosen.check:
        for failure in failures:
            print("FAILED", failure)
        sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
