// Small layers that reach every implementation class and every kernel between them.
#pragma once

#include <set>

#include "tests/layers/conv_cases.h"
#include "tests/support/gpu_slot.h"

namespace corvalith::testing {

struct SmallCase {
  std::string implementation;  // the class of the layer on GPUs
  LayerCase layerCase;
  const char* gpu = kPlainGpu;
  bool inFloat = true;
};

/// The layer with weights and biases as many as the type wants for these.
inline LayerCase withNoise(LayerCase c, size_t weights, size_t biases) {
  c.layer.weights = noise(weights, 3);
  c.layer.biases = noise(biases, 4);
  return c;
}

inline LayerCase smallFc(int batch, int inputs, int outputs) {
  const LayerCase c{"", layer("FC", "", {}, FCParam{outputs}), {{{batch, inputs, 1, 1}}, {{batch + 5, inputs, 1, 1}}}};
  return withNoise(c, static_cast<size_t>(inputs * outputs), static_cast<size_t>(outputs));
}

inline LayerCase smallDeconv(int channels, int outputs, const Kernel& k, int group, const Shape& in) {
  LayerCase c = convCase("", channels, outputs, k, group, {{in}, {{1, channels, in.h + 1, in.w}}});
  c.layer.type = "Deconv";
  return c;
}

inline PriorBoxParam smallPriors() {
  PriorBoxParam p;
  p.min_size_count = p.max_size_count = p.variance_count = 1;
  p.min_sizes[0] = 8;
  p.max_sizes[0] = 16;
  p.variances[0] = 0.125f;
  p.ratio_count = 2;
  p.ratios[1] = 2;
  p.num_priors = 3;
  return p;
}

/// Four boxes apart from each other; the second one's score counts.
inline LayerCase smallDetection() {
  DetectionOutputParam p;
  p.num_classes = 2;
  p.nms_threshold = 0.5f;
  p.top_k = p.keep_top_k = -1;
  p.code_type = 2;
  p.confidence_threshold = 0.1f;
  LayerCase c{"", layer("DetectionOutput", "", {}, p), {{{1, 16, 1, 1}, {1, 8, 1, 1}, {1, 2, 16, 1}}}};
  c.prepare = [](std::vector<Tensor>& inputs) {
    inputs[0].values.assign(16, 0.25f);
    inputs[1].values = {0.5f, 0, 0.5f, 0.75f, 0.5f, 0, 0.5f, 0};
    inputs[2].values.assign(32, 0.125f);
    for (size_t i = 0; i < 16; ++i) inputs[2].values[i] = static_cast<float>(i / 4 * 2 + i % 4 / 2) / 8;
  };
  return c;
}

inline std::vector<SmallCase> smallLightCases() {
  const Shape a{2, 3, 5, 7}, b{1, 3, 2, 9};
  const std::vector<std::vector<Shape>> one{{a}, {b}}, two{{a, a}, {b, b}}, three{{a, a, a}, {b, b, b}};
  return {
      {"ReluGPUImpl", {"", layer("ReLU", "", {}), one}},
      {"TanhGPUImpl", {"", layer("Tanh", "", {}), one}},
      {"PReluGPUImpl", withNoise({"", layer("PReLU", "", {}), one}, 0, 3)},
      {"PowerGPUImpl", {"", layer("Power", "", {}, PowerParam{3, 0.5f, 1}), one}},
      {"ScaleGPUImpl", withNoise({"", layer("Scale", "", {}), one}, 3, 3)},
      {"BatchNormGPUImpl", withNoise({"", layer("BatchNorm", "", {}, BatchNormParam{1, 0}), one}, 3, 3)},
      {"BatchNormGPUImpl", {"", layer("BatchNorm", "", {}, BatchNormParam{0, 0.5f}), one}},
      {"DropoutGPUImpl", {"", layer("Dropout", "", {}, DropoutParam{0.5f}), one}},
      {"ConcatGPUImpl", {"", layer("Concat", "", {}, ConcatParam{1}), two}},
      {"ConcatGPUAxis2Impl", {"", layer("Concat", "", {}, ConcatParam{2}), two}},
      {"EltwiseProdGPUImpl", {"", layer("Eltwise", "", {}, EltwiseParam{0, {}}), three}},
      {"EltwiseMaxGPUImpl", {"", layer("Eltwise", "", {}, EltwiseParam{2, {}}), three}},
      {"EltwiseSumGPUImpl", {"", layer("Eltwise", "", {}, EltwiseParam{1, {1, -1, 0.5f}}), three}},
      {"CropGPUImpl", {"", layer("Crop", "", {}, CropParam{2, {}, 1, 2}), {{a, {1, 1, 3, 4}}}}},
      {"FlattenGPUImpl", {"", layer("Flatten", "", {}, FlattenParam{1, -1}), one}},
      {"ReshapeGPUImpl", {"", layer("Reshape", "", {}, ReshapeParam{{0, -1, 1, 3}, 0, -1}), one}},
      {"PermuteGPUImpl", {"", layer("Permute", "", {}, PermuteParam{4, {3, 1, 0, 2}}), one}},
      {"SoftmaxGPUImpl", {"", layer("Softmax", "", {}, SoftmaxParam{1}), one}},
      {"SoftmaxGPUAxis2Impl", {"", layer("Softmax", "", {}, SoftmaxParam{2}), one}},
      {"MaxPoolGPUImpl", {"", layer("Pooling", "", {}, PoolingParam{0, 3, 1, 2, 0}), one}},
      {"AvePoolGPUImpl", {"", layer("Pooling", "", {}, PoolingParam{1, 2, 0, 2, 0}), one}},
      {"LRNGPUImpl", {"", layer("LRN", "", {}, LRNParam{1.25f, 0.75f, 3, 1}), one}},
      {"PriorBoxGPUImpl", {"", layer("PriorBox", "", {}, smallPriors()), {{{1, 4, 3, 5}, {1, 3, 30, 20}}}}},
      {"DetectionOutputGPUImpl", smallDetection()},
      {"FCGPUImpl", smallFc(2, 2000, 3)},
      {"FCGPU8x1Impl", smallFc(101, 257, 2)},
      {"FCGPU8x1GemvImpl", smallFc(101, 9, 3)},
      {"DeconvGPUImpl", smallDeconv(6, 4, {3, 3, 2, 2, 1, 1}, 2, {2, 6, 3, 3})},
      {"DeconvGPUImpl", smallDeconv(168, 168, {1, 1}, 8, {1, 168, 2, 3})},
      {"DeconvGPU1x8Impl", smallDeconv(6, 2, {2, 2, 2, 2}, 2, {1, 6, 5, 7})},
  };
}

inline std::vector<SmallCase> smallConvCases() {
  const auto conv = [](int outputs, const Kernel& k, int group, const Shape& first, const Shape& second = {}) {
    LayerCase c = convCase("", first.c, outputs, k, group, {{first}});
    if (second.n != 0) c.sizes.push_back({second});
    c.halfTolerance = 5e-3;
    return c;
  };
  const Kernel border{3, 3, 1, 1, 1, 1};
  return {
      {"ConvGPUGEMMImpl", conv(6, {3, 2, 1, 1, 1, 1}, 2, {2, 4, 5, 6}, {1, 4, 7, 4})},
      {"ConvGPUGEMM1xXImpl", conv(5, {3, 3, 2, 2, 1, 1}, 1, {2, 3, 7, 7}, {1, 3, 8, 8})},
      {"ConvGPUGEMM1xXImpl", conv(1538, {1, 1, 2, 2}, 1, {1, 1, 9, 19}), kPlainGpu, false},
      {"ConvGPUKernel1x1Impl", conv(89, {1, 1, 1, 1, 1, 1}, 1, {1, 5, 19, 19}, {2, 5, 2, 3})},
      {"ConvGPUDepthwiseImpl", conv(5, border, 5, {2, 5, 7, 6}, {1, 5, 3, 4})},
      {"ConvGPUDepthwiseImpl", conv(5, {3, 3}, 5, {1, 5, 8, 7}, {2, 5, 3, 4})},
      {"ConvGPUDepthwiseImpl", conv(5, {3, 3, 2, 2, 1, 1}, 5, {1, 5, 7, 7}, {2, 5, 8, 8})},
      {"ConvGPUDepthwiseImpl", conv(5, {3, 3, 2, 2}, 5, {1, 5, 7, 9}, {2, 5, 3, 3})},
      {"ConvGPUDepthwiseImpl", conv(3, {5, 3, 2, 1, 1, 2}, 3, {2, 3, 7, 6}, {1, 3, 5, 3})},
      {"ConvGPUWINOImpl", conv(3, border, 1, {1, 4, 9, 10}, {2, 4, 2, 3})},
      {"ConvGPUWINOImpl", conv(8, {3, 3, 1, 1, 0, 2}, 2, {1, 4, 5, 7}, {1, 4, 9, 3})},
      {"ConvGPUWINOImpl", conv(12, border, 1, {2, 5, 6, 5}, {1, 5, 8, 11}), kBifrostGpu},
      {"ConvGPUWINOImpl", conv(8, border, 1, {2, 5, 6, 5}, {1, 5, 8, 11}), kBifrostGpu},
      {"ConvGPUWINOImpl", conv(808, border, 1, {1, 65, 2, 3}), kBifrostGpu, false},
  };
}

/// All of them, convolutions with and without activation.
inline std::vector<SmallCase> smallCases() {
  std::vector<SmallCase> cases = smallLightCases();
  for (SmallCase convolution : smallConvCases()) {
    cases.push_back(convolution);
    convolution.layerCase.layer.activation = CONV_ACT_RELU;
    convolution.implementation.insert(convolution.implementation.rfind("Impl"), "WithAct");
    cases.push_back(convolution);
  }
  return cases;
}

/// One layer of every type, each with inputs of its own and named after its type; at their second sizes on demand.
struct EveryType {
  EveryType() {
    DataParam image;
    image.batch = image.channels = 1, image.height = image.width = 3, image.scale = 2;
    layers.push_back(layer("Data", "Data", {}, image));
    inputs.push_back({"Data", noise({1, 1, 3, 3}, 1), noise({2, 1, 5, 4}, 2)});
    for (const SmallCase& small : smallCases()) {
      const LayerCase& c = small.layerCase;
      if (!types.insert(c.layer.type).second) continue;
      tools::ModelLayer tested = c.layer;
      tested.name = c.layer.type;
      tested.tops = {c.layer.type};
      const std::vector<Tensor> first = inputsOf(c, c.sizes.front()), second = inputsOf(c, c.sizes.back());
      for (size_t i = 0; i < first.size(); ++i) {
        tested.bottoms.push_back(c.layer.type + std::to_string(i));
        layers.push_back(inputLayer(tested.bottoms.back(), first[i].shape));
        inputs.push_back({tested.bottoms.back(), first[i], second[i]});
      }
      layers.push_back(tested);
    }
  }

  struct Input {
    std::string layer;
    Tensor first, second;
  };
  std::vector<tools::ModelLayer> layers;
  std::vector<Input> inputs;
  std::set<std::string> types = {"InputData", "Data"};
};

inline const EveryType& everyType() {
  static const EveryType all;
  return all;
}

}  // namespace corvalith::testing
