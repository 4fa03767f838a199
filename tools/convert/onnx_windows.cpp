// ONNX's convolutions, poolings, padding and resizing.
#include <algorithm>
#include <cmath>

#include "tools/convert/builders.h"
#include "tools/convert/onnx_ops.h"

namespace corvalith::tools {
namespace {

/// What convolutions and poolings have in common.
struct Window {
  std::vector<int64_t> kernel, stride{1, 1}, dilation{1, 1};
  Padding pads;
};

/// Reads the attributes; `kernel` may hold what the weights say. False and a report where they are out of reach.
bool readWindow(OnnxNode& n, Window& window) {
  std::vector<int64_t> pads{0, 0, 0, 0};
  const std::vector<int64_t> fromWeights = window.kernel;
  n.intsAttr("kernel_shape", window.kernel);
  n.intsAttr("strides", window.stride);
  n.intsAttr("dilations", window.dilation);
  const bool given = n.intsAttr("pads", pads);
  if (n.rank() != 4 || window.kernel.size() != 2 || window.stride.size() != 2 || window.dilation.size() != 2 ||
      pads.size() != 4) {
    n.layer.unsupported("windows over other than two dimensions");
    return false;
  }
  if (!fromWeights.empty() && window.kernel != fromWeights) {
    n.layer.mismatch("kernel_shape is not that of the weights");
    return false;
  }
  const std::string automatic = n.textAttr("auto_pad", "NOTSET");
  if (automatic == "SAME_UPPER" || automatic == "SAME_LOWER") {
    for (int i = 0; i < 2; ++i) {
      const size_t axis = static_cast<size_t>(i);
      const int64_t size = n.shape()[2 + i], stride = window.stride[axis];
      if (stride < 1 || stride > size + 1 || window.kernel[axis] > kMaxBlockElements) continue;  // refused later
      const int64_t reach = (window.kernel[axis] - 1) * window.dilation[axis] + 1;
      const int64_t total = std::max<int64_t>(0, ((size + stride - 1) / stride - 1) * stride + reach - size);
      pads[axis] = automatic == "SAME_UPPER" ? total / 2 : total - total / 2;
      pads[axis + 2] = total - pads[axis];
    }
  } else if (automatic == "VALID") {
    pads = {0, 0, 0, 0};
  } else if (automatic != "NOTSET") {
    n.layer.unsupported("auto_pad " + automatic);
    return false;
  }
  if (given && automatic != "NOTSET") n.layer.note("pads are ignored beside auto_pad " + automatic);
  window.pads = {pads[0], pads[1], pads[2], pads[3]};
  return true;
}

/// Weights, biases and window of a convolution or deconvolution.
bool readConvolution(OnnxNode& n, ConvolutionArgs& args) {
  if (!n.floats(1, "weights", args.weights) || (n.hasInput(2) && !n.floats(2, "biases", args.biases))) return false;
  const std::vector<int64_t>& dims = n.constant(1)->dims;
  if (dims.size() != 4) {
    n.layer.unsupported("convolutions over other than two dimensions");
    return false;
  }
  Window window;
  window.kernel = {dims[2], dims[3]};
  if (!readWindow(n, window)) return false;
  args.numOutput = dims[0];
  args.kernelH = window.kernel[0];
  args.kernelW = window.kernel[1];
  args.strideH = window.stride[0];
  args.strideW = window.stride[1];
  args.dilationH = window.dilation[0];
  args.dilationW = window.dilation[1];
  args.group = n.intAttr("group", 1);
  args.pads = window.pads;
  return true;
}

void convertPool(OnnxNode& n, bool average) {
  Window window;
  if (!readWindow(n, window)) return;
  if (window.dilation[0] != 1 || window.dilation[1] != 1) {
    n.layer.unsupported("pooling with dilation");
    return;
  }
  n.ignoreAttr("storage_order");
  PoolingArgs args;
  args.average = average;
  args.kernelH = window.kernel[0];
  args.kernelW = window.kernel[1];
  args.strideH = window.stride[0];
  args.strideW = window.stride[1];
  args.pads = window.pads;
  args.roundUp = n.intAttr("ceil_mode", 0) != 0;
  if (average) args.countPadding = n.intAttr("count_include_pad", 0) != 0;
  addPooling(n.layer, n.value(), args);
}

void convertGlobalPool(OnnxNode& n, bool average) {
  if (n.rank() != 4) {
    n.layer.unsupported("pooling over other than two dimensions");
    return;
  }
  PoolingArgs args;
  args.average = average;
  args.global = true;
  addPooling(n.layer, n.value(), args);
}

}  // namespace

void convertOnnxConv(OnnxNode& n) {
  ConvolutionArgs args;
  if (readConvolution(n, args)) addConvolution(n.layer, n.value(), std::move(args));
}

void convertOnnxConvTranspose(OnnxNode& n) {
  ConvolutionArgs args;
  std::vector<int64_t> extra, shape;
  if (!readConvolution(n, args)) return;
  const bool moreRows =
      n.intsAttr("output_padding", extra) && std::any_of(extra.begin(), extra.end(), [](int64_t e) { return e != 0; });
  if (moreRows || n.intsAttr("output_shape", shape) || n.textAttr("auto_pad", "NOTSET") != "NOTSET") {
    n.layer.unsupported("output_padding, output_shape and auto_pad");
    return;
  }
  if (args.group < 1 || args.group > kMaxBlockElements || n.constant(1)->dims[1] > kMaxBlockElements) {
    n.layer.unsupported(std::to_string(args.group) + " groups");
    return;
  }
  args.numOutput = n.constant(1)->dims[1] * args.group;  // the weights begin with the input channels
  addDeconvolution(n.layer, n.value(), std::move(args));
}

void convertOnnxMaxPool(OnnxNode& n) { convertPool(n, false); }
void convertOnnxAveragePool(OnnxNode& n) { convertPool(n, true); }
void convertOnnxGlobalMaxPool(OnnxNode& n) { convertGlobalPool(n, false); }
void convertOnnxGlobalAveragePool(OnnxNode& n) { convertGlobalPool(n, true); }

void convertOnnxReduceMean(OnnxNode& n) {
  std::vector<int64_t> axes;
  n.list("axes", 1, axes);
  n.ignoreAttr("noop_with_empty_axes");
  const int rank = n.rank();
  for (int64_t& axis : axes) axis = axis < 0 ? axis + rank : axis;
  std::sort(axes.begin(), axes.end());
  if (rank != 4 || axes != std::vector<int64_t>{2, 3}) {
    n.layer.unsupported("means over other axes than rows and columns");
    return;
  }
  PoolingArgs args;
  args.average = args.global = true;
  if (n.intAttr("keepdims", 1) != 0) {
    addPooling(n.layer, n.value(), args);
  } else {
    addReshape(n.layer, addPooling(n.layer, n.value(), args, "mean"), {0, n.shape().c});
  }
}

void convertOnnxPad(OnnxNode& n) {
  std::vector<int64_t> pads;
  if (!n.list("pads", 1, pads)) {
    n.layer.unsupported("padding that is computed at run time");
    return;
  }
  float value = n.floatAttr("value", 0.0f);
  if (n.hasInput(2)) {
    std::vector<float> constant;
    if (!n.floats(2, "the padding value", constant)) return;
    value = constant.size() == 1 ? constant[0] : NAN;
  }
  if (n.textAttr("mode", "constant") != "constant" || value != 0.0f || n.hasInput(3)) {
    n.layer.unsupported("padding with other than zeros, or of chosen axes");
    return;
  }
  if (n.rank() != 4 || pads.size() != 8 || pads[0] != 0 || pads[4] != 0) {
    n.layer.unsupported("padding of other axes than channels, rows and columns");
    return;
  }
  if (std::any_of(pads.begin(), pads.end(), [](int64_t pad) { return pad < 0; })) {
    n.layer.unsupported("negative padding");
    return;
  }
  const Padding plane{pads[2], pads[3], pads[6], pads[7]};
  const bool channels = pads[1] != 0 || pads[5] != 0;
  std::string padded = n.value();
  if (channels) padded = addChannelPadding(n.layer, padded, pads[1], pads[5], plane.any() ? "channels" : "");
  if (plane.any()) {
    addSpatialPadding(n.layer, padded, plane);
  } else if (!channels) {
    addCopy(n.layer, padded);
  }
}

/// Nearest-neighbour resizing counts as enlargement by a whole factor where it takes exactly the same cells.
void convertOnnxResize(OnnxNode& n) {
  std::vector<float> scales;
  const size_t scalesInput = n.opset >= 11 ? 2 : 1;
  if (n.hasInput(scalesInput) && n.constant(scalesInput) != nullptr && n.constant(scalesInput)->size() > 0) {
    if (!n.floats(scalesInput, "scales", scales)) return;
  } else if (n.opset < 9) {
    n.layer.unsupported("scales as an attribute (opset 7 and 8)");
    return;
  }
  const Shape in = n.shape();
  if (scales.empty() && n.hasInput(3) && n.constant(3) != nullptr && n.constant(3)->whole) {
    for (size_t i = 0; i < n.constant(3)->ints.size() && i < 4; ++i) {
      scales.push_back(static_cast<float>(n.constant(3)->ints[i]) / static_cast<float>(in[static_cast<int>(i)]));
    }
  }
  if (n.rank() != 4 || scales.size() != 4 || scales[0] != 1.0f || scales[1] != 1.0f) {
    n.layer.unsupported("resizing that is not given as constant factors of rows and columns");
    return;
  }
  const std::string mode = n.textAttr("mode", "nearest");
  const std::string place = n.textAttr("coordinate_transformation_mode", n.opset >= 11 ? "half_pixel" : "asymmetric");
  const std::string rounding = n.textAttr("nearest_mode", n.opset >= 11 ? "round_prefer_floor" : "floor");
  for (const char* name : {"cubic_coeff_a", "exclude_outside", "extrapolation_value"}) n.ignoreAttr(name);
  if (mode != "nearest") {
    n.layer.unsupported("resizing mode " + mode);
    return;
  }
  for (int axis = 2; axis < 4; ++axis) {
    const double scale = scales[static_cast<size_t>(axis)];
    if (scale != std::floor(scale) || scale < 1 || scale > 64) {
      n.layer.unsupported("resizing by " + std::to_string(scale) + " (whole factors up to 64 are possible)");
      return;
    }
    for (int64_t to = 0; to < in[axis] * static_cast<int64_t>(scale); ++to) {
      double from = static_cast<double>(to) / scale;
      if (place == "half_pixel" || place == "pytorch_half_pixel") {
        from = (static_cast<double>(to) + 0.5) / scale - 0.5;
      } else if (place != "asymmetric") {
        n.layer.unsupported("coordinate_transformation_mode " + place);
        return;
      }
      const double nearest = rounding == "floor"               ? std::floor(from)
                             : rounding == "ceil"              ? std::ceil(from)
                             : rounding == "round_prefer_ceil" ? std::floor(from + 0.5)
                                                               : std::ceil(from - 0.5);
      const int64_t cell = std::min<int64_t>(std::max<int64_t>(0, static_cast<int64_t>(nearest)), in[axis] - 1);
      if (cell != to / static_cast<int64_t>(scale)) {
        n.layer.unsupported("nearest-neighbour resizing with " + place + " and " + rounding);
        return;
      }
    }
  }
  addUpsample(n.layer, n.value(), static_cast<int64_t>(scales[2]), static_cast<int64_t>(scales[3]));
}

}  // namespace corvalith::tools
