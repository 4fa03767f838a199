"""PyTorch on the graph of BASE.json with the weights in BASE.onnx, traced, frozen and optimised for inference; speaks as
driver.h says. Its memory is that of Python as well."""
import json
import re
import sys
import time

import numpy as np
import torch
import torch.nn.functional as F


class Network(torch.nn.Module):
    def __init__(self, base, outputs):
        super().__init__()
        with open(base + ".json") as f:
            self.layers = json.load(f)["layers"]
        self.outputs = outputs
        with open(base + ".onnx", "rb") as f:
            for layer in self.layers:
                for i, (offset, shape) in enumerate(layer["weights"]):
                    f.seek(offset)
                    values = np.fromfile(f, np.float32, int(np.prod(shape))).reshape(shape)
                    self.register_buffer("%s_%d" % (layer["name"], i), torch.from_numpy(values))

    def forward(self, data):
        blobs = {"data": data}
        for p in self.layers:
            kind, inputs, name = p["kind"], [blobs[x] for x in p["inputs"]], p["name"]
            x = inputs[0]
            weights = [getattr(self, "%s_%d" % (name, i)) for i in range(len(p["weights"]))]
            if kind == "Conv":
                y = F.conv2d(x, *weights, p["stride"], p["pad"], 1, p["group"])
            elif kind == "Gemm":
                y = F.linear(torch.flatten(x, 1), *weights)
            elif kind == "Relu":
                y = F.relu(x)
            elif kind == "MaxPool":
                y = F.max_pool2d(x, p["kernel"], p["stride"], p["pad"], ceil_mode=True)
            elif kind == "GlobalAveragePool":
                y = F.adaptive_avg_pool2d(x, 1)
            elif kind == "LRN":
                y = F.local_response_norm(x, p["size"], p["alpha"], p["beta"], 1.0)
            elif kind == "Concat":
                y = torch.cat(inputs, p["axis"])
            elif kind == "Add":
                y = x + inputs[1]
            elif kind == "Softmax":
                y = F.softmax(x, p["axis"])
            elif kind == "Flatten":
                y = torch.flatten(x, 1)
            elif kind == "Transpose":
                y = x.permute(p["order"])
            elif kind == "Reshape":
                y = x.reshape(p["shape"])
            else:
                raise ValueError(kind)
            blobs[name] = y
        return tuple(blobs[x] for x in self.outputs)


def milliseconds(clock):
    return clock() * 1e3


def main(base, threads, shape, outputs):
    torch.set_num_threads(int(threads))
    dims = [int(d) for d in shape.split("x")]
    data = torch.from_numpy(np.fromfile(base + ".input", np.float32).reshape(dims))
    start = milliseconds(time.perf_counter)
    network = torch.jit.trace(Network(base, outputs.split(",")).eval(), data, check_trace=False)
    network = torch.jit.optimize_for_inference(torch.jit.freeze(network))
    print("ready %.3f %s" % (milliseconds(time.perf_counter) - start, torch.__version__), flush=True)
    results = ()
    for line in sys.stdin:
        command, _, argument = line.strip().partition(" ")
        if command == "run":
            times = []
            for _ in range(int(argument)):
                cpu, wall = milliseconds(time.process_time), milliseconds(time.perf_counter)
                results = network(data)
                times.append("%.4f:%.4f" % (milliseconds(time.perf_counter) - wall,
                                            milliseconds(time.process_time) - cpu))
            print(*times, flush=True)
        elif command == "dump":
            with open(argument, "wb") as f:
                for result in results:
                    f.write(result.contiguous().numpy().tobytes())
            print("done", flush=True)
        else:
            with open("/proc/self/status") as f:
                print(re.search(r"VmHWM:\s+(\d+)", f.read()).group(1), flush=True)
            break


with torch.inference_mode():
    main(*sys.argv[1:])
