"""Starts the drivers of the engines and talks to them."""
import importlib.util
import os
import statistics
import subprocess
import tempfile

import numpy as np
from report import HERE, OURS

TURN = 200  # milliseconds


def commands(programs):
    """The engines that can be run here, each with its command and the files that it needs."""
    found = {OURS: ([os.path.join(programs, "bench/cpu/corvalith_driver")], ".cvm")}
    opencv = os.path.join(programs, "bench/cpu/opencv_driver")
    if os.path.exists(opencv):
        found["opencv"] = ([opencv], ".caffemodel")
    if os.path.isdir(os.path.join(os.environ.get("NODE_PATH", ""), "onnxruntime-node")):
        found["onnxruntime"] = (["node", os.path.join(HERE, "onnxruntime_driver.js")], ".onnx")
    if importlib.util.find_spec("torch"):
        found["pytorch"] = (["/usr/bin/python3", os.path.join(HERE, "torch_driver.py")], ".onnx")
    return found


class Driver:
    """One engine that has loaded one network."""

    def __init__(self, command, base, network, cores):
        shape = "x".join(map(str, network["input"]))
        arguments = [base, str(len(cores)), shape, ",".join(network["outputs"])]
        # Libraries that do not take the number of threads from the driver take it from here. OpenCL is hidden: an
        # engine that looks for GPUs would load its drivers, whose time and memory are not the engine's.
        environment = dict(os.environ, OMP_NUM_THREADS=str(len(cores)), OPENBLAS_NUM_THREADS=str(len(cores)),
                           OCL_ICD_VENDORS=os.devnull)
        self.errors = tempfile.TemporaryFile()
        self.process = subprocess.Popen(["taskset", "-c", ",".join(map(str, cores))] + command + arguments,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors, text=True,
                                        env=environment)
        _, load, self.version = self.answer()
        self.load, self.wall, self.cpu = float(load), [], []
        self.first = float(self.ask("run 1")[0].split(":")[0])

    def answer(self):
        line = self.process.stdout.readline()
        if line:
            return line.split()
        self.errors.seek(0)
        raise RuntimeError("%s stopped:\n%s" % (" ".join(self.process.args[3:]),
                                               self.errors.read().decode(errors="replace")[-2000:]))

    def ask(self, text):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()
        return self.answer()

    def time(self, runs):
        """So many runs, or as many as take TURN milliseconds. Not counted are one fourth as many before them: they find
        another engine's data in the caches, and its threads on the cores."""
        shortest = min(self.wall, default=self.first)
        runs = max(runs, round(TURN / shortest))
        uncounted = (runs + 3) // 4
        for pair in self.ask("run %d" % (uncounted + runs))[uncounted:]:
            wall, cpu = pair.split(":")
            self.wall.append(float(wall))
            self.cpu.append(float(cpu))

    def outputs(self):
        with tempfile.NamedTemporaryFile() as f:
            self.ask("dump " + f.name)
            return np.fromfile(f.name, np.float32)

    def result(self):
        """Also ends the driver. Times are milliseconds; memory is in bytes."""
        low, _, high = statistics.quantiles(self.cpu, n=4)
        cpu = statistics.median(self.cpu)
        peak = 1024 * int(self.ask("quit")[0])
        self.process.wait()
        wall = statistics.median(self.wall)
        # Some engines initialise when they are created, others in their first run.
        load = self.load + max(0.0, self.first - wall)
        return {"cpu": cpu, "wall": wall, "spread": (high - low) / cpu, "load": load, "before_first": self.load,
                "peak": peak, "version": self.version}

    def stop(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
