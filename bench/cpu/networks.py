#!/usr/bin/env python3
"""Writes well-known networks with random weights (seeded, He-scaled; BatchNorm folded into the convolutions).

usage: networks.py FOLDER [NETWORK...]

NETWORK.prototxt, .caffemodel and .onnx; NETWORK.input: the floats to be fed; NETWORK.json: the graph, its input and
outputs, the FLOP of its convolutions and fully connected layers, and where in the ONNX file the weights are.
"""
import json
import os
import sys

import caffe_format
import onnx_format
from graph import Graph

MOBILENET = [(64, 1), (128, 2), (128, 1), (256, 2), (256, 1), (512, 2)] + [(512, 1)] * 5 + [(1024, 2), (1024, 1)]


def squeezenet():
    g = Graph(3, 227, 227)

    def fire(x, squeezed, expanded):
        x = g.conv(x, squeezed, 1)
        return g.concat([g.conv(x, expanded, 1), g.conv(x, expanded, 3, pad=1)])
    x = g.max_pool(g.conv("data", 64, 3, 2), 3, 2)
    x = g.max_pool(fire(fire(x, 16, 64), 16, 64), 3, 2)
    x = g.max_pool(fire(fire(x, 32, 128), 32, 128), 3, 2)
    for squeezed, expanded in ((48, 192), (48, 192), (64, 256), (64, 256)):
        x = fire(x, squeezed, expanded)
    g.outputs = [g.softmax(g.average(g.conv(x, 1000, 1)), 1)]
    return g


def separable(g, x, outputs, stride):
    channels = g.shapes[x][1]
    return g.conv(g.conv(x, channels, 3, stride, 1, group=channels), outputs, 1)


def mobilenet():
    g = Graph(3, 224, 224)
    x = g.conv("data", 32, 3, 2, 1)
    for outputs, stride in MOBILENET:
        x = separable(g, x, outputs, stride)
    return g.classify(g.average(x))


def mobilenet_ssd(detections):
    """Ends in the detections, which ONNX cannot express, or in locations and scores."""
    g = Graph(3, 300, 300)
    x = g.conv("data", 32, 3, 2, 1)
    maps = []
    for i, (outputs, stride) in enumerate(MOBILENET):
        x = separable(g, x, outputs, stride)
        if i in (10, 12):
            maps.append(x)
    for squeezed, expanded in ((256, 512), (128, 256), (128, 256), (64, 128)):
        x = g.conv(g.conv(x, squeezed, 1), expanded, 3, 2, 1)
        maps.append(x)
    sides = [(60, None), (105, 150), (150, 195), (195, 240), (240, 285), (285, 300)]
    locations, scores, priors = [], [], []
    for x, (smallest, largest) in zip(maps, sides):
        ratios = [2, 3] if largest else [2]
        boxes = 2 * len(ratios) + (2 if largest else 1)
        for heads, width, gain in ((locations, 4, 0.5), (scores, 21, 2.0)):
            head = g.conv(x, boxes * width, 1, relu=False, gain=gain)
            heads.append(g.flatten(g.transpose(head, [0, 2, 3, 1])))
        if detections:
            priors.append(g.prior_box(x, smallest, largest, ratios))
    locations, scores = g.concat(locations), g.concat(scores)
    scores = g.reshape(scores, (1, g.shapes[scores][1] // 21, 21))
    scores = g.flatten(g.softmax(scores, 2))
    g.outputs = [locations, scores]
    if detections:
        g.outputs = [g.detection_output(locations, scores, g.concat(priors, 2), 21, 0.25)]
    return g


def alexnet():
    g = Graph(3, 227, 227)
    x = g.max_pool(g.lrn(g.conv("data", 96, 11, 4)), 3, 2)
    x = g.max_pool(g.lrn(g.conv(x, 256, 5, pad=2, group=2)), 3, 2)
    x = g.conv(x, 384, 3, pad=1)
    x = g.conv(x, 384, 3, pad=1, group=2)
    x = g.max_pool(g.conv(x, 256, 3, pad=1, group=2), 3, 2)
    return g.classify(g.fc(g.fc(x, 4096), 4096))


def googlenet():
    g = Graph(3, 224, 224)

    def inception(x, one, three_in, three, five_in, five, pooled):
        return g.concat([g.conv(x, one, 1), g.conv(g.conv(x, three_in, 1), three, 3, pad=1),
                         g.conv(g.conv(x, five_in, 1), five, 5, pad=2), g.conv(g.max_pool(x, 3, 1, 1), pooled, 1)])
    x = g.lrn(g.max_pool(g.conv("data", 64, 7, 2, 3), 3, 2))
    x = g.max_pool(g.lrn(g.conv(g.conv(x, 64, 1), 192, 3, pad=1)), 3, 2)
    x = inception(x, 64, 96, 128, 16, 32, 32)
    x = g.max_pool(inception(x, 128, 128, 192, 32, 96, 64), 3, 2)
    for widths in ((192, 96, 208, 16, 48, 64), (160, 112, 224, 24, 64, 64), (128, 128, 256, 24, 64, 64),
                   (112, 144, 288, 32, 64, 64), (256, 160, 320, 32, 128, 128)):
        x = inception(x, *widths)
    x = inception(g.max_pool(x, 3, 2), 256, 160, 320, 32, 128, 128)
    return g.classify(g.average(inception(x, 384, 192, 384, 48, 128, 128)), gain=0.3)


def resnet(blocks, bottleneck):
    """What a block adds has half of He's deviation, for the sum not to grow from block to block."""
    g = Graph(3, 224, 224)
    x = g.max_pool(g.conv("data", 64, 7, 2, 3), 3, 2)
    for stage, count in enumerate(blocks):
        width = 64 << stage
        outputs = 4 * width if bottleneck else width
        for block in range(count):
            stride = 2 if stage and not block else 1
            same = stride == 1 and g.shapes[x][1] == outputs
            shortcut = x if same else g.conv(x, outputs, 1, stride, relu=False)
            if bottleneck:
                y = g.conv(g.conv(x, width, 1, stride), width, 3, pad=1)
                y = g.conv(y, outputs, 1, relu=False, gain=0.5)
            else:
                y = g.conv(g.conv(x, width, 3, stride, 1), width, 3, pad=1, relu=False, gain=0.5)
            x = g.relu(g.sum(shortcut, y))
    return g.classify(g.average(x), gain=0.3)


def vgg16():
    g, x = Graph(3, 224, 224), "data"
    for outputs, count in ((64, 2), (128, 2), (256, 3), (512, 3), (512, 3)):
        for _ in range(count):
            x = g.conv(x, outputs, 3, pad=1)
        x = g.max_pool(x, 2, 2)
    return g.classify(g.fc(g.fc(x, 4096), 4096))


NETWORKS = {
    "squeezenet": squeezenet, "mobilenet": mobilenet, "alexnet": alexnet,
    "mobilenet_ssd": lambda: mobilenet_ssd(True), "mobilenet_ssd_heads": lambda: mobilenet_ssd(False),
    "googlenet": googlenet, "resnet18": lambda: resnet((2, 2, 2, 2), False),
    "resnet50": lambda: resnet((3, 4, 6, 3), True), "vgg16": vgg16,
}


def write(folder, name):
    graph = NETWORKS[name]()
    base = os.path.join(folder, name)
    caffe_format.write(graph, name, base)
    offsets = {}
    if not any(layer.kind == "DetectionOutput" for layer in graph.layers):
        offsets = onnx_format.write(graph, name, base + ".onnx")
    shape = graph.shapes["data"]
    (2 * graph.random.random(shape, "float32") - 1).tofile(base + ".input")
    layers = [dict(layer.parameters, kind=layer.kind, name=layer.name, inputs=layer.inputs, shape=layer.shape,
                   weights=[(offsets.get((layer.name, i)), w.shape) for i, w in enumerate(layer.weights)])
              for layer in graph.layers]
    with open(base + ".json", "w") as f:  # last: a folder with it has everything
        json.dump({"input": shape, "outputs": graph.outputs, "flop": graph.flop, "onnx": bool(offsets),
                   "layers": layers}, f)


def main(folder, *names):
    os.makedirs(folder, exist_ok=True)
    for name in names or NETWORKS:
        write(folder, name)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(*sys.argv[1:])
