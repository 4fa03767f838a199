"""Caffe's text of a network and its file of weights."""
from wire_format import block, varint, write as write_pieces

KINDS = {"Conv": "Convolution", "Gemm": "InnerProduct", "Relu": "ReLU", "MaxPool": "Pooling",
         "GlobalAveragePool": "Pooling", "Add": "Eltwise", "Transpose": "Permute"}


def parameters(layer):
    p = layer.parameters
    kind = layer.kind
    if kind == "Conv":
        return "convolution_param { num_output: %d kernel_size: %d stride: %d pad: %d group: %d }" % (
            layer.shape[1], p["kernel"], p["stride"], p["pad"], p["group"])
    if kind == "Gemm":
        return "inner_product_param { num_output: %d }" % layer.shape[1]
    if kind == "MaxPool":
        return "pooling_param { pool: MAX kernel_size: %d stride: %d pad: %d }" % (p["kernel"], p["stride"], p["pad"])
    if kind == "GlobalAveragePool":
        return "pooling_param { pool: AVE global_pooling: true }"
    if kind == "LRN":
        return "lrn_param { local_size: %d alpha: %g beta: %g }" % (p["size"], p["alpha"], p["beta"])
    if kind in ("Concat", "Softmax"):
        return "%s_param { axis: %d }" % (kind.lower(), p["axis"])
    if kind == "Transpose":
        return "permute_param { %s }" % " ".join("order: %d" % d for d in p["order"])
    if kind == "Reshape":
        return "reshape_param { shape { %s } }" % " ".join("dim: %d" % d for d in layer.shape)
    if kind == "PriorBox":
        largest = "max_size: %d" % p["largest"] if p["largest"] else ""
        return ("prior_box_param { min_size: %d %s %s flip: true clip: false offset: 0.5 "
                "variance: 0.1 variance: 0.1 variance: 0.2 variance: 0.2 }"
                % (p["smallest"], largest, " ".join("aspect_ratio: %d" % r for r in p["ratios"])))
    if kind == "DetectionOutput":
        return ("detection_output_param { num_classes: %d share_location: true background_label_id: 0 "
                "nms_param { nms_threshold: 0.45 top_k: 100 } code_type: CENTER_SIZE keep_top_k: 100 "
                "confidence_threshold: %g }" % (p["classes"], p["threshold"]))
    return ""


def blob(values):
    shape = block(1, b"".join(map(varint, values.shape)))
    return block(7, block(7, shape) + block(5, values))


def write(graph, name, base):
    """BASE.prototxt and BASE.caffemodel. ReLU works in place, as it does in published networks."""
    lines = ['name: "%s"' % name,
             'layer { name: "data" type: "Input" top: "data" input_param { shape { %s } } }'
             % " ".join("dim: %d" % d for d in graph.shapes["data"])]
    pieces, blobs = block(1, name), {"data": "data"}
    for layer in graph.layers:
        inputs = [blobs[x] for x in layer.inputs]
        top = blobs[layer.name] = inputs[0] if layer.kind == "Relu" else layer.name
        kind = KINDS.get(layer.kind, layer.kind)
        lines.append('layer { name: "%s" type: "%s"%s top: "%s" %s }'
                     % (layer.name, kind, "".join(' bottom: "%s"' % x for x in inputs), top, parameters(layer)))
        if layer.weights:
            pieces += block(100, block(1, layer.name) + block(2, kind) + sum(map(blob, layer.weights), []))
    with open(base + ".prototxt", "w") as f:
        f.write("\n".join(lines) + "\n")
    write_pieces(base + ".caffemodel", pieces)
