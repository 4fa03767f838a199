// Convolutions, deconvolutions and poolings: everything with a window that moves over the plane.
#include <algorithm>
#include <cmath>

#include "tools/convert/builders.h"

namespace corvalith::tools {
namespace {

constexpr int64_t kMaxWindow = 4096;  // kernel, stride, dilation and padding
constexpr int64_t kMaxChannels = 1 << 24;

bool inRange(int64_t value, int64_t low, int64_t high) { return value >= low && value <= high; }

bool sane(const Padding& pads) {
  return inRange(pads.top, 0, kMaxWindow) && inRange(pads.left, 0, kMaxWindow) && inRange(pads.bottom, 0, kMaxWindow) &&
         inRange(pads.right, 0, kMaxWindow);
}

std::string text(const Padding& pads) {
  return "top " + std::to_string(pads.top) + ", left " + std::to_string(pads.left) + ", bottom " +
         std::to_string(pads.bottom) + ", right " + std::to_string(pads.right);
}

std::string text(int64_t height, int64_t width) { return std::to_string(height) + "x" + std::to_string(width); }

/// Puts every kernel plane into a larger one of zeros: cell (y, x) goes to (top + y * stepH, left + x * stepW).
std::vector<float> embed(const std::vector<float>& kernels, int64_t kernelH, int64_t kernelW, int64_t newH,
                         int64_t newW, int64_t top, int64_t left, int64_t stepH, int64_t stepW) {
  const size_t planes = kernels.size() / static_cast<size_t>(kernelH * kernelW);
  std::vector<float> out(planes * static_cast<size_t>(newH * newW));
  auto from = kernels.begin();
  for (size_t plane = 0; plane < planes; ++plane) {
    float* to = out.data() + plane * static_cast<size_t>(newH * newW);
    for (int64_t y = 0; y < kernelH; ++y) {
      for (int64_t x = 0; x < kernelW; ++x) to[(top + y * stepH) * newW + left + x * stepW] = *from++;
    }
  }
  return out;
}

/// Whether the parameters are such that the arithmetic on them is safe, and the weights are as many as they say.
bool checkArgs(SourceLayer& layer, const std::string& input, const ConvolutionArgs& args, bool transposed) {
  const int64_t windows[] = {args.kernelH, args.kernelW, args.strideH, args.strideW, args.dilationH, args.dilationW};
  for (int64_t value : windows) {
    if (!inRange(value, 1, kMaxWindow)) {
      layer.unsupported("kernel, stride and dilation must lie in 1 to " + std::to_string(kMaxWindow) + ", one is " +
                        std::to_string(value));
      return false;
    }
  }
  if (!sane(args.pads)) {
    layer.unsupported("padding (" + text(args.pads) + ") must lie in 0 to " + std::to_string(kMaxWindow));
    return false;
  }
  if (!inRange(args.numOutput, 1, kMaxChannels) || !inRange(args.group, 1, kMaxChannels)) {
    layer.unsupported("needs at least 1 output channel and group, has " + std::to_string(args.numOutput) + " and " +
                      std::to_string(args.group));
    return false;
  }
  const int channels = layer.shape(input).c;
  if (channels % args.group != 0 || args.numOutput % args.group != 0) {
    layer.mismatch(std::to_string(args.group) + " groups do not divide " + std::to_string(channels) + " input and " +
                   std::to_string(args.numOutput) + " output channels");
    return false;
  }
  const int64_t perKernel = transposed ? args.numOutput / args.group : channels / args.group;
  const int64_t kernels = transposed ? channels : args.numOutput;
  const double needed = static_cast<double>(kernels) * static_cast<double>(perKernel) *
                        static_cast<double>(args.kernelH) * static_cast<double>(args.kernelW);
  if (static_cast<double>(args.weights.size()) != needed) {
    layer.mismatch("has " + std::to_string(args.weights.size()) + " weights, " + std::to_string(kernels) + "x" +
                   std::to_string(perKernel) + "x" + text(args.kernelH, args.kernelW) + " are needed");
    return false;
  }
  if (!args.biases.empty() && static_cast<int64_t>(args.biases.size()) < args.numOutput) {
    layer.mismatch("has " + std::to_string(args.biases.size()) + " biases for " + std::to_string(args.numOutput) +
                   " output channels");
    return false;
  }
  return true;
}

Node windowNode(const char* type, ConvolutionArgs& args) {
  Node node;
  node.type = type;
  ConvParam param;
  param.num_output = static_cast<int32_t>(args.numOutput);
  param.kernel_h = static_cast<int32_t>(args.kernelH);
  param.kernel_w = static_cast<int32_t>(args.kernelW);
  param.stride_h = static_cast<int32_t>(args.strideH);
  param.stride_w = static_cast<int32_t>(args.strideW);
  param.group = static_cast<int32_t>(args.group);
  node.setSpecial(param);
  node.weights = std::move(args.weights);
  node.biases = std::move(args.biases);
  node.biases.resize(static_cast<size_t>(args.numOutput));  // the record always holds a bias per output channel
  return node;
}

/// The number that makes floor((size + reach) / stride) + 1 the source's count of windows.
int64_t windowReach(const PoolingArgs& args, int64_t before, int64_t after, int64_t kernel, int64_t stride) {
  int64_t reach = before + after - kernel;
  if (args.roundUp) reach += stride - 1;
  // Only where there is padding; the last window then begins inside the input or its leading padding.
  if (args.roundUp && args.clipLast && args.pads.any()) reach = std::min(reach, before - 1);
  return reach;
}

/// A single-channel tensor of zeros whose plane has floor((size + reach) / stride) + 1 rows and columns, at any input
/// size: what a Crop takes its size from.
std::string addSizeReference(SourceLayer& layer, const std::string& input, int64_t reachH, int64_t reachW,
                             int64_t stride) {
  const auto padFor = [](int64_t reach) { return reach < 0 ? 0 : reach / 2 + 1; };
  ConvolutionArgs args;
  args.numOutput = 1;
  args.strideH = args.strideW = stride;
  args.pads = {padFor(reachH), padFor(reachW), padFor(reachH), padFor(reachW)};
  args.kernelH = 2 * args.pads.top - reachH;
  args.kernelW = 2 * args.pads.left - reachW;
  args.weights.resize(static_cast<size_t>(layer.shape(input).c * args.kernelH * args.kernelW));
  return addConvolution(layer, input, std::move(args), "size");
}

/// An average over windows that all lie inside the padded plane is a depthwise convolution.
std::string addAverageConvolution(SourceLayer& layer, const std::string& input, const PoolingArgs& pooling,
                                  const std::string& suffix) {
  const int64_t area = pooling.kernelH * pooling.kernelW;
  ConvolutionArgs args;
  args.numOutput = args.group = layer.shape(input).c;
  args.kernelH = pooling.kernelH;
  args.kernelW = pooling.kernelW;
  args.strideH = pooling.strideH;
  args.strideW = pooling.strideW;
  args.pads = pooling.pads;
  args.weights.assign(static_cast<size_t>(args.numOutput * area), 1.0f / static_cast<float>(area));
  layer.note("average over windows that a Pooling cannot have, written as a depthwise convolution");
  return addConvolution(layer, input, std::move(args), suffix);
}

Node poolingNode(const PoolingArgs& args, int64_t pad) {
  PoolingParam param;
  param.pool = args.average ? 1 : 0;
  param.kernel_size = static_cast<int32_t>(args.kernelH);
  param.pad = static_cast<int32_t>(pad);
  param.stride = static_cast<int32_t>(args.strideH);
  param.global_pooling = args.global ? 1 : 0;
  Node node;
  node.type = "Pooling";
  node.setSpecial(param);
  return node;
}

}  // namespace

Padding paddingOf(const Node& convolution) {
  const ConvParam p = convolution.specialAs<ConvParam>();
  return {p.pad_h, p.pad_w, p.pad_h, p.pad_w};
}

bool setPadding(Node& convolution, const Padding& pads) {
  ConvParam p = convolution.specialAs<ConvParam>();
  const int64_t newH = p.kernel_h + std::abs(pads.bottom - pads.top);
  const int64_t newW = p.kernel_w + std::abs(pads.right - pads.left);
  if (!sane(pads) || newH > kMaxWindow || newW > kMaxWindow) return false;
  if (newH != p.kernel_h || newW != p.kernel_w) {
    const int64_t kernels = static_cast<int64_t>(convolution.weights.size()) / (int64_t{p.kernel_h} * p.kernel_w);
    if (kernels * newH * newW > kMaxBlockElements) return false;
    convolution.weights =
        embed(convolution.weights, p.kernel_h, p.kernel_w, newH, newW, std::max<int64_t>(0, pads.bottom - pads.top),
              std::max<int64_t>(0, pads.right - pads.left), 1, 1);
  }
  p.kernel_h = static_cast<int32_t>(newH);
  p.kernel_w = static_cast<int32_t>(newW);
  p.pad_h = static_cast<int32_t>(std::max(pads.top, pads.bottom));
  p.pad_w = static_cast<int32_t>(std::max(pads.left, pads.right));
  convolution.setSpecial(p);
  return true;
}

std::string addConvolution(SourceLayer& layer, const std::string& input, ConvolutionArgs args,
                           const std::string& suffix) {
  if (!checkArgs(layer, input, args, false)) return input;
  if (args.dilationH > 1 || args.dilationW > 1) {
    const int64_t newH = (args.kernelH - 1) * args.dilationH + 1, newW = (args.kernelW - 1) * args.dilationW + 1;
    const int64_t kernels = static_cast<int64_t>(args.weights.size()) / (args.kernelH * args.kernelW);
    if (newH > kMaxWindow || newW > kMaxWindow || kernels * newH * newW > kMaxBlockElements) {
      layer.unsupported("dilation " + text(args.dilationH, args.dilationW) + " of so large a kernel");
      return input;
    }
    layer.note("dilation " + text(args.dilationH, args.dilationW) + ": kernel " + text(args.kernelH, args.kernelW) +
               " spread with zeros to " + text(newH, newW));
    args.weights = embed(args.weights, args.kernelH, args.kernelW, newH, newW, 0, 0, args.dilationH, args.dilationW);
    args.kernelH = newH;
    args.kernelW = newW;
  }
  const Padding pads = args.pads;
  Node node = windowNode("Conv", args);
  if (!setPadding(node, pads)) {
    layer.unsupported("padding " + text(pads));
    return input;
  }
  if (!pads.symmetric()) {
    const ConvParam p = node.specialAs<ConvParam>();
    layer.note("unequal padding (" + text(pads) + "): kernel " + text(args.kernelH, args.kernelW) + " extended to " +
               text(p.kernel_h, p.kernel_w) + ", padding " + text(p.pad_h, p.pad_w));
  }
  return layer.add(std::move(node), {input}, suffix);
}

std::string addDeconvolution(SourceLayer& layer, const std::string& input, ConvolutionArgs args,
                             const std::string& suffix) {
  if (args.dilationH != 1 || args.dilationW != 1 || !args.pads.symmetric()) {
    layer.unsupported("a deconvolution with dilation or unequal padding");
    return input;
  }
  if (!checkArgs(layer, input, args, true)) return input;
  const Padding pads = args.pads;
  Node node = windowNode("Deconv", args);
  ConvParam param = node.specialAs<ConvParam>();
  param.pad_h = static_cast<int32_t>(pads.top);
  param.pad_w = static_cast<int32_t>(pads.left);
  node.setSpecial(param);
  return layer.add(std::move(node), {input}, suffix);
}

std::string addPooling(SourceLayer& layer, const std::string& input, const PoolingArgs& args,
                       const std::string& suffix) {
  const Padding& pads = args.pads;
  if (args.global) {
    PoolingArgs whole;
    whole.average = args.average;
    whole.global = true;
    return layer.add(poolingNode(whole, 0), {input}, suffix);
  }
  const int64_t windows[] = {args.kernelH, args.kernelW, args.strideH, args.strideW};
  for (int64_t value : windows) {
    if (!inRange(value, 1, kMaxWindow)) {
      layer.unsupported("pooling kernel and stride must lie in 1 to " + std::to_string(kMaxWindow));
      return input;
    }
  }
  if (!sane(pads)) {
    layer.unsupported("padding (" + text(pads) + ") must lie in 0 to " + std::to_string(kMaxWindow));
    return input;
  }
  if (args.average && pads.any() && !args.countPadding) {
    layer.unsupported("averages that leave the padding out of their divisor");
    return input;
  }
  const Shape in = layer.shape(input);
  const int64_t reachH = windowReach(args, pads.top, pads.bottom, args.kernelH, args.strideH);
  const int64_t reachW = windowReach(args, pads.left, pads.right, args.kernelW, args.strideW);
  if (in.h + reachH < 0 || in.w + reachW < 0) {
    layer.mismatch("the window " + text(args.kernelH, args.kernelW) + " is larger than its padded input of " +
                   text(in.h, in.w));
    return input;
  }
  const int64_t outH = (in.h + reachH) / args.strideH + 1, outW = (in.w + reachW) / args.strideW + 1;

  const bool square = args.kernelH == args.kernelW && args.strideH == args.strideW;
  if (!square && !pads.any() && args.kernelH == in.h && args.kernelW == in.w) {
    layer.note("the window is the whole plane: pooled globally");
    PoolingArgs whole = args;
    whole.global = true;
    return addPooling(layer, input, whole, suffix);
  }
  const bool evenPads = pads.symmetric() && pads.top == pads.left;
  if (!square || (args.average && !evenPads)) {
    const bool full = (outH - 1) * args.strideH + args.kernelH <= in.h + pads.top + pads.bottom &&
                      (outW - 1) * args.strideW + args.kernelW <= in.w + pads.left + pads.right;
    if (args.average && full) return addAverageConvolution(layer, input, args, suffix);
    layer.unsupported("pooling with kernel " + text(args.kernelH, args.kernelW) + ", stride " +
                      text(args.strideH, args.strideW) + ", padding " + text(pads) +
                      " (the engine has one kernel size, one stride and one padding)");
    return input;
  }

  // Padding never wins a maximum, so more of it only adds windows before the wanted ones, which a Crop removes.
  const int64_t stride = args.strideH;
  if ((pads.left - pads.top) % stride != 0) {
    layer.unsupported("max pooling whose padding (" + text(pads) + ") differs by no multiple of its stride");
    return input;
  }
  const auto windowCount = [&](int64_t size, int64_t pad) {
    return (size + 2 * pad - args.kernelH + 2 * stride - 1) / stride;
  };
  int64_t pad = std::max(pads.top, pads.left);
  const auto missing = [&] {
    return windowCount(in.h, pad) < (pad - pads.top) / stride + outH ||
           windowCount(in.w, pad) < (pad - pads.left) / stride + outW;
  };
  while (missing()) pad += stride;
  const int64_t offsetH = (pad - pads.top) / stride, offsetW = (pad - pads.left) / stride;
  if (windowCount(in.h, pad) == outH && windowCount(in.w, pad) == outW) {
    return layer.add(poolingNode(args, pad), {input}, suffix);
  }
  const std::string pooled = layer.add(poolingNode(args, pad), {input}, suffix + "pool");
  layer.note("the engine pools to " + text(windowCount(in.h, pad), windowCount(in.w, pad)) + ", cut to " +
             text(outH, outW) + " from row " + std::to_string(offsetH) + ", column " + std::to_string(offsetW));
  const std::string reference = addSizeReference(layer, input, reachH, reachW, stride);
  return addCrop(layer, pooled, reference, offsetH, offsetW, suffix);
}

std::string addSpatialPadding(SourceLayer& layer, const std::string& input, const Padding& pads,
                              const std::string& suffix) {
  ConvolutionArgs args;
  args.numOutput = args.group = layer.shape(input).c;
  args.weights.assign(static_cast<size_t>(args.numOutput), 1.0f);
  Node node = windowNode("Conv", args);
  if (!setPadding(node, pads)) {
    layer.unsupported("padding " + text(pads));
    return input;
  }
  node.onlyPads = pads;
  return layer.add(std::move(node), {input}, suffix);
}

std::string addUpsample(SourceLayer& layer, const std::string& input, int64_t factorH, int64_t factorW,
                        const std::string& suffix) {
  if (!inRange(factorH, 1, 64) || !inRange(factorW, 1, 64)) {
    layer.unsupported("enlargement by " + text(factorH, factorW) + " (1 to 64 are possible)");
    return input;
  }
  ConvolutionArgs args;
  args.numOutput = args.group = layer.shape(input).c;
  args.kernelH = args.strideH = factorH;
  args.kernelW = args.strideW = factorW;
  args.weights.assign(static_cast<size_t>(args.numOutput * factorH * factorW), 1.0f);
  layer.note("nearest-neighbour enlargement written as a depthwise deconvolution of ones");
  return addDeconvolution(layer, input, std::move(args), suffix);
}

}  // namespace corvalith::tools
