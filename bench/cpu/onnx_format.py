"""ONNX files of operator set 13."""
import numpy as np
from wire_format import block, integer, real, write as write_pieces


def attribute(name, value):
    """A float, an integer or a list of integers."""
    if isinstance(value, float):
        content = real(2, value) + integer(20, 1)
    elif isinstance(value, int):
        content = integer(3, value) + integer(20, 2)
    else:
        content = sum((integer(8, v) for v in value), []) + integer(20, 7)
    return block(5, block(1, name) + content)


def attributes(layer):
    p = layer.parameters
    if layer.kind in ("Conv", "MaxPool"):
        window = {"kernel_shape": [p["kernel"]] * 2, "strides": [p["stride"]] * 2, "pads": [p["pad"]] * 4}
        return dict(window, group=p["group"]) if layer.kind == "Conv" else dict(window, ceil_mode=1)
    if layer.kind == "Gemm":
        return {"transB": 1}
    if layer.kind == "LRN":
        return dict(p, bias=1.0)
    if layer.kind == "Transpose":
        return {"perm": p["order"]}
    return p


def node(kind, name, inputs, values):
    content = sum((block(1, x) for x in inputs), []) + block(2, name) + block(3, name) + block(4, kind)
    return block(1, content + sum((attribute(k, v) for k, v in values.items()), []))


def tensor(name, values):
    kind = 1 if values.dtype == np.float32 else 7
    dims = sum((integer(1, d) for d in values.shape), [])
    return block(5, dims + integer(2, kind) + block(8, name) + block(9, values))


def value(number, name, shape):
    dims = sum((block(1, integer(1, d)) for d in shape), [])
    return block(number, block(1, name) + block(2, block(1, integer(1, 1) + block(2, dims))))


def write(graph, name, path):
    """Returns where the weights begin in the file, by the layer's name and their index."""
    nodes, tensors = [], []
    for layer in graph.layers:
        inputs = list(layer.inputs)
        if layer.kind == "Gemm" and len(graph.shapes[inputs[0]]) > 2:
            nodes += node("Flatten", layer.name + ".flat", inputs, {})
            inputs = [layer.name + ".flat"]
        constants = layer.weights
        if layer.kind == "Reshape":
            constants = [np.array(layer.shape, np.int64)]
        for i, values in enumerate(constants):
            inputs.append("%s.%d" % (layer.name, i))
            tensors += tensor(inputs[-1], values)
        nodes += node(layer.kind, layer.name, inputs, attributes(layer))
    content = nodes + block(2, name) + tensors + value(11, "data", graph.shapes["data"])
    content += sum((value(12, x, graph.shapes[x]) for x in graph.outputs), [])
    offsets = write_pieces(path, integer(1, 8) + block(7, content) + block(8, block(1, "") + integer(2, 13)))
    return {(layer.name, i): offsets[id(w)] for layer in graph.layers for i, w in enumerate(layer.weights)}
