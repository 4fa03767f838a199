// One layer, its inputs and the sizes that they take one after another: what a numeric test is made of.
#pragma once

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/test_net.h"

namespace corvalith::testing {

struct LayerCase {
  std::string name;         // unique in its table
  tools::ModelLayer layer;  // type, records and weights; names are the runner's: inputs "in0", "in1", ..., output "out"
  /// Shapes of all inputs: entry 0 is what the network is initialised with, the others follow one after another.
  std::vector<std::vector<Shape>> sizes;
  bool inPlace = false;            // the output takes the name of input 0
  double tolerance = 1e-5;         // largest difference, as a part of the reference's largest magnitude; 0 on GPUs too
  double halfTolerance = 2e-3;     // the same for a half-precision GPU, against inputs and weights rounded to halves
  double belowHalves = -INFINITY;  // what a half-precision GPU gives for a value below all halves
  float inputScale = 1.0f;         // inputs are noise in [-inputScale, inputScale]
  uint32_t seed = 1;
  std::function<void(std::vector<Tensor>&)> prepare = {};  // may put special values into the inputs
};

/// What the layer must give, in double precision, from plain loops.
struct Expected {
  Shape shape;
  std::vector<double> values;
};
using Reference = std::function<Expected(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs)>;

/// Runs a case on the CPU with every build of the inner loops that the processor runs, with one slot and with three,
/// and in programs with layer_case_gpu.cpp on the rig's GPUs in float and half: every size in order, then the first
/// size again, each twice. Expects the reference's shape and values (a NaN where the reference has one), the same bits
/// in both runs and for both numbers of slots. Failures name the case, its seed and the sizes.
void runLayerCase(const LayerCase& layerCase, const Reference& reference);

// What both runners use.

/// Runs a case on GPUs; null in programs without them.
using CaseRunner = void (*)(const LayerCase& layerCase, const Reference& reference);
extern CaseRunner runLayerCaseOnGpu;

std::string describe(const LayerCase& layerCase, const std::vector<Shape>& sizes, const std::string& where);
/// The input layers and the tested one.
std::vector<tools::ModelLayer> networkOf(const LayerCase& layerCase);
/// All sizes in order, and the first again.
std::vector<std::vector<Shape>> stepsOf(const LayerCase& layerCase);
std::vector<Tensor> inputsOf(const LayerCase& layerCase, const std::vector<Shape>& sizes);
/// Sets the inputs and runs once; false when a step failed.
bool feedAndRun(BuiltNet& net, const std::vector<Tensor>& inputs);
std::string outputName(const LayerCase& layerCase);
void compare(const Tensor& got, const Expected& want, double tolerance);
bool sameBits(const Tensor& a, const Tensor& b);

/// Expects that the case's first size initialises and that its second is refused by the layer's reshape, and that the
/// network works again afterwards on its first size. `line` is the text that the layer logs, as "E/..." or "D/...".
void expectReshapeRefused(const LayerCase& layerCase, const std::string& line);

/// Expects that the network does not initialise, and that `line` is logged.
void expectInitRefused(const LayerCase& layerCase, const std::string& line);

}  // namespace corvalith::testing
