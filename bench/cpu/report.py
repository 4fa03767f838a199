"""What is printed of the figures, and which of them exceed their limits."""
import json
import os
import platform
import statistics

HERE = os.path.dirname(os.path.abspath(__file__))
OURS = "corvalith"


def processor():
    with open("/proc/cpuinfo") as f:
        names = [line.split(":")[1].strip() for line in f if line.startswith("model name")]
    return "%s, %s" % (names[0] if names else "unknown processor", platform.machine())


def print_head(everything, engines):
    print("%s; %d thread%s, batch 1; library, stripped: %d bytes" % (
        everything["processor"], everything["threads"], "s"[:everything["threads"] - 1], everything["library_bytes"]))
    missing = {"opencv", "onnxruntime", "pytorch"} - set(engines)
    if missing:
        print("left out: %s" % ", ".join(sorted(missing)))


def range_of(ratios):
    text = "%.2f" % statistics.median(ratios)
    return text if len(ratios) == 1 else "%s (%.2f to %.2f)" % (text, min(ratios), max(ratios))


def print_network(name, result):
    print("\n%s: %.2f GFLOP, %.1f GFLOP/s peak" % (name, result["flop"] / 1e9, result["fma_peak"]))
    print("  %-19s %9s %9s %7s %7s %9s %9s  %s" % ("", "CPU ms", "wall ms", "spread", "peak", "load ms", "memory MB",
                                                   "difference"))
    for engine, r in result["engines"].items():
        print("  %-19s %9.2f %9.2f %6.1f%% %6.0f%% %9.1f %9.1f  %s" % (
            "%s %s" % (engine, r["version"].split("+")[0]), r["cpu"], r["wall"], 100 * r["spread"],
            100 * r["part_of_peak"], r["load"], r["peak"] / 1e6, "" if engine == OURS else "%.1e" % r["difference"]))
    if result["ratios"]:
        print("  to the fastest other: %s of its time, %s of its time to load"
              % (range_of(result["ratios"]), range_of(result["load_ratios"])), flush=True)


def exceeded(everything):
    """One line for each limit of limits.json that is not kept."""
    with open(os.path.join(HERE, "limits.json")) as f:
        limits = json.load(f)
    failures = []

    def hold(what, value, limit, form="%.2f"):
        if value > limit:
            failures.append("%s: %s, above %s" % (what, form % value, form % limit))

    for name, result in everything["networks"].items():
        if not result["ratios"]:
            failures.append("%s: there is no other engine" % name)
            continue
        if name in limits["ratio"]:
            hold(name + ", ratio of times", statistics.median(result["ratios"]), limits["ratio"][name])
        if name in limits["load_ratio"]:
            hold(name + ", ratio of times to load", statistics.median(result["load_ratios"]), limits["load_ratio"][name])
        least = min(r["peak"] for engine, r in result["engines"].items() if engine != OURS)
        hold(name + ", bytes of memory less the model's", result["engines"][OURS]["peak"] - result["model_bytes"], least,
             "%d")
    hold("bytes of the library", everything["library_bytes"], limits["library_bytes"], "%d")
    return failures
