"""A network as a list of layers with random weights, from which every format is written.

Layers are named after their kind and counted. A layer gives one blob, which has the layer's name.
"""
import math
from dataclasses import dataclass, field

import numpy as np


@dataclass
class Layer:
    kind: str       # ONNX's name of the operation; PriorBox and DetectionOutput are Caffe's
    name: str
    inputs: list
    shape: tuple    # of the output, with a batch of 1
    parameters: dict
    weights: list = field(default_factory=list)


class Graph:
    def __init__(self, channels, height, width):
        self.random = np.random.default_rng(1)
        self.shapes = {"data": (1, channels, height, width)}
        self.layers, self.outputs, self.flop = [], [], 0

    def add(self, kind, inputs, shape, weights=(), **parameters):
        name = "%s%d" % (kind.lower(), len(self.layers))
        self.shapes[name] = tuple(int(d) for d in shape)
        self.layers.append(Layer(kind, name, list(inputs), self.shapes[name], parameters, list(weights)))
        return name

    def weights(self, shape, gain):
        """He's deviation keeps values near 1 through any depth of ReLU layers, far from denormals."""
        deviation = gain * math.sqrt(2 / np.prod(shape[1:]))
        return [self.random.standard_normal(shape, np.float32) * np.float32(deviation),
                self.random.standard_normal(shape[0], np.float32) * np.float32(0.05)]

    def conv(self, x, outputs, kernel, stride=1, pad=0, group=1, relu=True, gain=1.0):
        _, channels, height, width = self.shapes[x]
        shape = (1, outputs, *((d + 2 * pad - kernel) // stride + 1 for d in (height, width)))
        weights = self.weights((outputs, channels // group, kernel, kernel), gain)
        self.flop += 2 * weights[0].size * shape[2] * shape[3]
        y = self.add("Conv", [x], shape, weights, kernel=kernel, stride=stride, pad=pad, group=group)
        return self.relu(y) if relu else y

    def fc(self, x, outputs, relu=True, gain=1.0):
        weights = self.weights((outputs, int(np.prod(self.shapes[x]))), gain)
        self.flop += 2 * weights[0].size
        y = self.add("Gemm", [x], (1, outputs), weights)
        return self.relu(y) if relu else y

    def classify(self, x, gain=1.0):
        """The gain keeps scores so small that Softmax does not hide all but the best of them."""
        self.outputs = [self.softmax(self.fc(x, 1000, relu=False, gain=gain), 1)]
        return self

    def relu(self, x):
        return self.add("Relu", [x], self.shapes[x])

    def max_pool(self, x, kernel, stride, pad=0):
        """The last window may reach beyond the edge."""
        _, channels, height, width = self.shapes[x]
        size = [-(-(d + 2 * pad - kernel) // stride) + 1 for d in (height, width)]
        return self.add("MaxPool", [x], (1, channels, *size), kernel=kernel, stride=stride, pad=pad)

    def average(self, x):
        return self.add("GlobalAveragePool", [x], (1, self.shapes[x][1], 1, 1))

    def lrn(self, x):
        return self.add("LRN", [x], self.shapes[x], size=5, alpha=1e-4, beta=0.75)

    def concat(self, inputs, axis=1):
        shape = list(self.shapes[inputs[0]])
        shape[axis] = sum(self.shapes[x][axis] for x in inputs)
        return self.add("Concat", inputs, shape, axis=axis)

    def sum(self, a, b):
        return self.add("Add", [a, b], self.shapes[a])

    def softmax(self, x, axis):
        return self.add("Softmax", [x], self.shapes[x], axis=axis)

    def flatten(self, x):
        return self.add("Flatten", [x], (1, np.prod(self.shapes[x])))

    def transpose(self, x, order):
        return self.add("Transpose", [x], [self.shapes[x][d] for d in order], order=order)

    def reshape(self, x, shape):
        return self.add("Reshape", [x], shape)

    def prior_box(self, x, smallest, largest, ratios):
        """Boxes of these sides, in pixels, around every cell of x; ratios are taken both ways."""
        cells = self.shapes[x][2] * self.shapes[x][3]
        boxes = (1 + (largest is not None) + 2 * len(ratios)) * cells
        return self.add("PriorBox", [x, "data"], (1, 2, 4 * boxes), smallest=smallest, largest=largest, ratios=ratios)

    def detection_output(self, locations, scores, priors, classes, threshold):
        """The number of rows depends on the data."""
        return self.add("DetectionOutput", [locations, scores, priors], (1, 1, 100, 7), classes=classes,
                        threshold=threshold)
