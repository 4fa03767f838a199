// What the importers build with: operations of the source formats, each rewritten exactly into engine layers.
// Every function returns the value that holds the result. An empty suffix makes it the source layer's own output.
#pragma once

#include <string>
#include <vector>

#include "tools/convert/source_layer.h"

namespace corvalith::tools {

struct ConvolutionArgs {
  int64_t numOutput = 0;
  int64_t kernelH = 1, kernelW = 1;
  int64_t strideH = 1, strideW = 1;
  int64_t dilationH = 1, dilationW = 1;
  int64_t group = 1;
  Padding pads;
  std::vector<float> weights;  // output channel, input channel of the group, row, column
  std::vector<float> biases;   // empty for none
};

/// Unequal padding and dilation are written as a larger kernel with zeros.
std::string addConvolution(SourceLayer& layer, const std::string& input, ConvolutionArgs args,
                           const std::string& suffix = "");

/// Weights are input channel, output channel of the group, row, column. Padding must be symmetric, dilation 1.
std::string addDeconvolution(SourceLayer& layer, const std::string& input, ConvolutionArgs args,
                             const std::string& suffix = "");

/// Gives a convolution other padding: the larger one of each axis, and for the difference rows or columns of zeros on
/// that side of the kernel which has more. Returns false, with nothing changed, where that grows beyond all reason.
bool setPadding(Node& convolution, const Padding& pads);

/// The padding that a convolution has now.
Padding paddingOf(const Node& convolution);

struct PoolingArgs {
  bool average = false;
  bool global = false;
  int64_t kernelH = 1, kernelW = 1;
  int64_t strideH = 1, strideW = 1;
  Padding pads;
  bool roundUp = true;       // a last window that does not fit counts
  bool clipLast = true;      // but not where it would begin beyond the input and its leading padding
  bool countPadding = true;  // averages divide by the window's size, padding included
};

/// The engine's own windows, cut to those that the source has.
std::string addPooling(SourceLayer& layer, const std::string& input, const PoolingArgs& args,
                       const std::string& suffix = "");

std::string addRelu(SourceLayer& layer, const std::string& input, const std::string& suffix = "");
std::string addPRelu(SourceLayer& layer, const std::string& input, std::vector<float> slopes,
                     const std::string& suffix = "");
std::string addTanh(SourceLayer& layer, const std::string& input, const std::string& suffix = "");
/// By the hyperbolic tangent: 0.5 tanh(x / 2) + 0.5.
std::string addSigmoid(SourceLayer& layer, const std::string& input, const std::string& suffix = "");
/// max(x, low) and min(x, high), together; an infinite limit is none. A value that no limit touches stays exact.
std::string addClip(SourceLayer& layer, const std::string& input, float low, float high,
                    const std::string& suffix = "");
/// (scale x + shift)^power; the engine's exponent is an integer.
std::string addPower(SourceLayer& layer, const std::string& input, int power, float scale, float shift,
                     const std::string& suffix = "");
/// A value of its own with the same contents, so that it can be read by its name.
std::string addCopy(SourceLayer& layer, const std::string& input, const std::string& suffix = "");
/// Per channel: scales[c] x + biases[c].
std::string addScale(SourceLayer& layer, const std::string& input, std::vector<float> scales, std::vector<float> biases,
                     const std::string& suffix = "");
/// (x - mean) / sqrt(variance + eps) per channel; with no means and variances given, those of the input itself.
std::string addBatchNorm(SourceLayer& layer, const std::string& input, std::vector<float> means,
                         const std::vector<float>& variances, float eps, const std::string& suffix = "");
std::string addLrn(SourceLayer& layer, const std::string& input, const LRNParam& param, const std::string& suffix = "");

enum EltwiseOperation : uint32_t { kProduct = 0, kSum = 1, kMaximum = 2 };
/// Any number of inputs of one shape; `coefficients` of a sum are all 1 if empty.
std::string addEltwise(SourceLayer& layer, std::vector<std::string> inputs, EltwiseOperation operation,
                       std::vector<float> coefficients = {}, const std::string& suffix = "");
/// Any number of inputs, along channels (1) or rows (2).
std::string addConcat(SourceLayer& layer, std::vector<std::string> inputs, int axis, const std::string& suffix = "");
/// A tensor of the input's batch and plane with one constant per channel: a 1x1 convolution of zeros and these biases.
std::string addConstantChannels(SourceLayer& layer, const std::string& input, std::vector<float> channels,
                                const std::string& suffix = "");
/// Channels of zeros before and after.
std::string addChannelPadding(SourceLayer& layer, const std::string& input, int64_t before, int64_t after,
                              const std::string& suffix = "");
/// Zeros around the plane: a depthwise 1x1 convolution of ones, which later passes fold into what follows.
std::string addSpatialPadding(SourceLayer& layer, const std::string& input, const Padding& pads,
                              const std::string& suffix = "");
/// Nearest-neighbour enlargement by whole factors: a depthwise deconvolution of ones.
std::string addUpsample(SourceLayer& layer, const std::string& input, int64_t factorH, int64_t factorW,
                        const std::string& suffix = "");

/// Weights are one row per output, in channel, height, width order of the input.
std::string addFullyConnected(SourceLayer& layer, const std::string& input, std::vector<float> weights,
                              std::vector<float> biases, int64_t outputs, const std::string& suffix = "");
std::string addCrop(SourceLayer& layer, const std::string& input, const std::string& reference, int64_t offsetH,
                    int64_t offsetW, const std::string& suffix = "");
/// `dims` are up to four new sizes, of which 0 keeps the input's and one may be -1.
std::string addReshape(SourceLayer& layer, const std::string& input, const std::vector<int64_t>& dims,
                       const std::string& suffix = "");
/// Joins the axes from `axis` to the last one of the source.
std::string addFlatten(SourceLayer& layer, const std::string& input, int axis, int endAxis,
                       const std::string& suffix = "");
/// `order` has as many axes as the source's tensor.
std::string addPermute(SourceLayer& layer, const std::string& input, const std::vector<int64_t>& order,
                       const std::string& suffix = "");
std::string addSoftmax(SourceLayer& layer, const std::string& input, int axis, const std::string& suffix = "");

/// An axis of the source as a number from 0, counted from the end if negative; -1 and a report where it is out of
/// range.
int absoluteAxis(SourceLayer& layer, int64_t axis, int rank);

/// Adds an input layer. Sizes that cannot be are reported.
void addInput(Graph& graph, const std::string& name, const std::vector<int64_t>& dims);

}  // namespace corvalith::tools
