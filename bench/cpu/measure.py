#!/usr/bin/env python3
"""Times networks on all engines that are there. All engines of a network are loaded at once, on the same cores, and take
turns, so that whatever else the machine does meets all of them. One thread is judged by the process' CPU time, more by
the wall clock. Called by bench/cpu/run."""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile

import numpy as np

import networks
import report
from drivers import Driver, commands
from report import HERE, OURS

TOLERANCE = 1e-4  # of the largest output


def options():
    parser = argparse.ArgumentParser(prog="bench/cpu/run", description=__doc__)
    parser.add_argument("--threads", type=int, default=1, help="threads of every engine, a core for each (1)")
    parser.add_argument("--runs", type=int, default=1, help="rounds; what is printed are their medians (1)")
    parser.add_argument("--turns", type=int, default=5, help="turns of every engine in a round, of 4 runs or more (5)")
    parser.add_argument("--nets", default=",".join(networks.NETWORKS), help="names, separated by commas (all)")
    parser.add_argument("--json", metavar="FILE", help="write all figures, for plot.py")
    parser.add_argument("--check", action="store_true", help="fail where a limit of limits.json is exceeded")
    parser.add_argument("--programs", default="build/release", help=argparse.SUPPRESS)
    parser.add_argument("--folder", default="build/bench-nets", help=argparse.SUPPRESS)
    chosen = parser.parse_args()
    chosen.nets = chosen.nets.split(",")
    unknown = set(chosen.nets) - set(networks.NETWORKS)
    if unknown:
        parser.error("no such network: %s; there are %s" % (", ".join(unknown), ", ".join(networks.NETWORKS)))
    return chosen


def progress(text):
    if sys.stderr.isatty():
        sys.stderr.write("\r\033[K" + text)
        sys.stderr.flush()


def stale(path):
    """Missing, or older than what writes networks."""
    sources = [os.path.join(HERE, s) for s in ("graph.py", "networks.py", "caffe_format.py", "onnx_format.py",
                                               "wire_format.py")]
    return not os.path.exists(path) or os.path.getmtime(path) < max(map(os.path.getmtime, sources))


def prepare(name, chosen):
    """Makes a network's files where they are stale, and our model always: the converter may have changed."""
    base = os.path.join(chosen.folder, name)
    if stale(base + ".json"):
        progress("%s: making the network" % name)
        os.makedirs(chosen.folder, exist_ok=True)
        networks.write(chosen.folder, name)
    progress("%s: converting" % name)
    subprocess.run([os.path.join(chosen.programs, "corvalith"), "convert", base + ".prototxt", base + ".caffemodel",
                    base + ".cvm"], check=True, stdout=subprocess.DEVNULL)
    with open(base + ".json") as f:
        return base, json.load(f)


def rows(values):
    """Detections (image, label, score, box), in an order that does not depend on the engine's, and without rows of
    zeros, with which OpenCV fills its table."""
    table = values.reshape(-1, 7)
    table = table[table[:, 2] > 0]
    return table[np.lexsort((-table[:, 2], table[:, 1]))]


def difference(ours, theirs, detections):
    """The largest, as a part of the largest value; infinite where the sizes differ."""
    if detections:
        ours, theirs = rows(ours), rows(theirs)
        if not np.array_equal(ours[:, :2], theirs[:, :2]):  # image and label
            return float("inf")
        ours, theirs = ours[:, 2:], theirs[:, 2:]
    if ours.size == 0 or ours.shape != theirs.shape or not np.isfinite(ours).all():
        return float("inf")
    return float(np.abs(ours - theirs).max() / np.abs(theirs).max())


def peak(chosen, cores):
    command = ["taskset", "-c", ",".join(map(str, cores)), os.path.join(chosen.programs, "bench/cpu/fma_peak")]
    return float(subprocess.run(command + [str(len(cores))], check=True, capture_output=True).stdout)


def one_round(base, network, chosen, engines, cores, say):
    """The result of every engine on one network."""
    drivers = {}
    try:
        for name, (command, needed) in engines.items():
            if os.path.exists(base + needed):
                say("loading %s" % name)
                drivers[name] = Driver(command, base, network, cores)
        order = list(drivers)
        for turn in range(chosen.turns):
            say("turn %d of %d" % (turn + 1, chosen.turns))
            for name in order:
                drivers[name].time(3)
            order.append(order.pop(0))  # nobody always follows the same other
        outputs = {name: driver.outputs() for name, driver in drivers.items()}
        results = {name: driver.result() for name, driver in drivers.items()}
    finally:
        for driver in drivers.values():
            driver.stop()
    detections = network["layers"][-1]["kind"] == "DetectionOutput"
    for name in results:
        results[name]["difference"] = difference(outputs[OURS], outputs[name], detections)
    return results


def medians(rounds):
    """Of each figure of each engine."""
    def median(values):
        return values[0] if isinstance(values[0], str) else statistics.median(values)
    return {engine: {key: median([r[engine][key] for r in rounds]) for key in rounds[0][engine]}
            for engine in rounds[0]}


def measure(name, chosen, engines, cores):
    base, network = prepare(name, chosen)
    rounds, ratios, load_ratios, peaks = [], [], [], []
    time = "cpu" if chosen.threads == 1 else "wall"
    for i in range(chosen.runs):
        def say(text):
            progress("%s, round %d of %d: %s" % (name, i + 1, chosen.runs, text))
        say("peak")
        peaks.append(peak(chosen, cores))
        rounds.append(one_round(base, network, chosen, engines, cores, say))
        peers = [r for engine, r in rounds[-1].items() if engine != OURS]
        if peers:
            ratios.append(rounds[-1][OURS][time] / min(p[time] for p in peers))
            load_ratios.append(rounds[-1][OURS]["load"] / min(p["load"] for p in peers))
    progress("")
    results = medians(rounds)
    for r in results.values():
        r["part_of_peak"] = network["flop"] / (r[time] * 1e6) / statistics.median(peaks)
    return {"flop": network["flop"], "fma_peak": statistics.median(peaks), "model_bytes": os.path.getsize(base + ".cvm"),
            "ratios": ratios, "load_ratios": load_ratios, "engines": results,
            "difference": max(r[engine]["difference"] for r in rounds for engine in r)}


def library_bytes(programs):
    with tempfile.NamedTemporaryFile() as f:
        subprocess.run(["strip", "-o", f.name, os.path.join(programs, "libcorvalith.so")], check=True)
        return os.path.getsize(f.name)


def main():
    chosen = options()
    available = sorted(os.sched_getaffinity(0))
    if chosen.threads > len(available):
        sys.exit("%d threads need as many cores" % chosen.threads)
    cores = available[-chosen.threads:]  # the first one serves most interrupts
    engines = commands(chosen.programs)
    everything = {"threads": chosen.threads, "rounds": chosen.runs, "processor": report.processor(),
                  "library_bytes": library_bytes(chosen.programs), "networks": {}}
    report.print_head(everything, engines)
    failures = []
    for name in chosen.nets:
        result = everything["networks"][name] = measure(name, chosen, engines, cores)
        report.print_network(name, result)
        if result["difference"] > TOLERANCE:
            failures.append("%s: the outputs differ by %.2g of the maximum" % (name, result["difference"]))
        if chosen.json:  # as soon as there is something to keep
            with open(chosen.json, "w") as f:
                json.dump(everything, f, indent=1)
    if chosen.check:
        failures += report.exceeded(everything)
    for failure in failures:
        print("FAILED", failure)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
