// Concat, Eltwise, Crop, Flatten, Reshape and Permute.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "layers/registry.h"
#include "tests/layers/reference.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

using Sizes = std::vector<std::vector<Shape>>;

/// A case with nothing to round: the values must be the very ones.
template <class Record>
LayerCase exactCase(std::string name, const std::string& type, const Record& record, Sizes sizes) {
  LayerCase c{std::move(name), layer(type, "", {}, record), std::move(sizes)};
  c.tolerance = 0;
  return c;
}

std::string listed(std::initializer_list<int> values) {
  std::string text;
  for (const int value : values) text += " " + std::to_string(value);
  return text;
}

// ---- Concat

Expected concat(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const int axis = layer.specialAs<ConcatParam>().axis == 2 ? 2 : 1;
  Shape shape = inputs[0].shape;
  shape[axis] = 0;
  for (const Tensor& in : inputs) shape[axis] += in.shape[axis];
  return generate(shape, [&](int n, int c, int h, int w) {
    Shape position{n, c, h, w};
    size_t i = 0;
    for (; position[axis] >= inputs[i].shape[axis]; ++i) position[axis] -= inputs[i].shape[axis];
    return at(inputs[i], position.n, position.c, position.h, position.w);
  });
}

/// Inputs of 1, 2, 3, ... along `axis`, alike otherwise.
std::vector<Shape> rising(size_t inputs, Shape shape, int axis) {
  std::vector<Shape> shapes;
  for (size_t i = 0; i < inputs; ++i) {
    shape[axis] = static_cast<int>(i) + 1;
    shapes.push_back(shape);
  }
  return shapes;
}

TEST(Concat, AlongChannelsAndRows) {
  for (const uint32_t recordAxis : {0u, 1u, 2u, 3u, 0x80000002u}) {
    const int axis = recordAxis == 2 ? 2 : 1;
    for (const size_t inputs : {1u, 2u, 3u, 10u}) {
      const std::string name = "axis " + std::to_string(recordAxis) + ", inputs " + std::to_string(inputs);
      std::vector<Shape> reversed = rising(inputs, {3, 4, 6, 7}, axis);
      std::reverse(reversed.begin(), reversed.end());  // the sum stays, the parts do not
      runLayerCase(exactCase(name, "Concat", ConcatParam{recordAxis},
                             {rising(inputs, {2, 3, 5, 7}, axis), rising(inputs, {3, 4, 6, 7}, axis), reversed,
                              alike(inputs, {1, 1, 1, 1}), alike(inputs, {2, 6, 4, 9})}),
                   concat);
    }
  }
  LayerCase c{"without a special record", layer("Concat", "", {}), {{{1, 64, 2, 2}, {1, 32, 2, 2}}}};
  runLayerCase(c, concat);
}

TEST(Concat, RefusesInputsThatDisagree) {
  const Shape first{2, 3, 4, 5};
  for (const int axis : {1, 2}) {
    for (int d = 0; d < 4; ++d) {
      if (d == axis) continue;
      Shape other = first;
      ++other[d];
      LayerCase c = exactCase("axis" + listed({axis, d}), "Concat", ConcatParam{static_cast<uint32_t>(axis)},
                              {{first, first}, {first, other}});
      expectReshapeRefused(c, "E/concat reshape failed");
      c.sizes = {{first, first, other}};
      expectInitRefused(c, "E/concatLayer impl init fail");
    }
  }
}

TEST(Concat, RefusesAnotherNumberOfInputsThanRecorded) {
  TestNet net({inputLayer("a", {1, 2, 3, 3}), inputLayer("b", {1, 2, 3, 3})});
  ASSERT_EQ(net.status(), 0);
  const auto inputs = net.net.getLayers();
  const std::vector<char> record = tools::layerRecord(layer("Concat", "joined", {"a", "b", "a"}, ConcatParam{}));
  const auto concat = RegisterFactory::registry().at("Concat")(CORVALITH_FP32, &net.context);
  ASSERT_EQ(concat->setLayerParam(record.data(), static_cast<int>(record.size()), LOAD_FULL, nullptr), 0);
  LogCapture log;
  EXPECT_NE(concat->initForward({inputs[0].get(), inputs[1].get()}), 0);
  EXPECT_EQ(log.take(), std::vector<std::string>{"E/concatLayer bottom name and count not match"});
  EXPECT_NE(concat->initForward({}), 0);
  EXPECT_EQ(log.take(), std::vector<std::string>{"E/concatLayer bottom count error"});
  EXPECT_EQ(concat->initForward({inputs[0].get(), inputs[1].get(), inputs[0].get()}), 0);
}

// ---- Eltwise

Expected eltwise(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const EltwiseParam param = layer.specialAs<EltwiseParam>();
  return generate(inputs[0].shape, [&](int n, int c, int h, int w) {
    const double first = at(inputs[0], n, c, h, w);
    double result = param.operation == 1 ? param.coeff[0] * first : first;
    for (size_t i = 1; i < inputs.size(); ++i) {
      const double x = at(inputs[i], n, c, h, w);
      if (param.operation == 0) result *= x;
      if (param.operation == 1) result += param.coeff[i] * x;
      if (param.operation == 2) result = std::max(result, x);
    }
    return result;
  });
}

TEST(Eltwise, EveryOperation) {
  const EltwiseParam params[] = {
      {0, {}}, {2, {}}, {1, {}}, {1, {1, -1}}, {1, {0.5f, 2, -3, 0, 1, 0.25f, -0.125f, 7, 1, -1}}};
  for (const EltwiseParam& param : params) {
    for (size_t inputs = 2; inputs <= 10; ++inputs) {
      LayerCase c{"operation" + listed({static_cast<int>(param.operation), static_cast<int>(inputs)}),
                  layer("Eltwise", "", {}, param),
                  {alike(inputs, {2, 3, 5, 7}), alike(inputs, {3, 4, 9, 11}), alike(inputs, {1, 1, 1, 1}),
                   alike(inputs, {1, 7, 5, 3})}};
      runLayerCase(c, eltwise);
    }
  }
}

TEST(Eltwise, Refuses) {
  const Shape shape{2, 3, 4, 5}, sameCount{2, 3, 5, 4};
  LayerCase c = exactCase("unknown operation", "Eltwise", EltwiseParam{3, {}}, {alike(2, shape)});
  expectInitRefused(c, "D/no such eltwise type");

  c = exactCase("one input", "Eltwise", EltwiseParam{1, {1}}, {alike(1, shape)});
  expectInitRefused(c, "E/eltwiseLayer bottom count error");

  c = exactCase("another shape of the same count", "Eltwise", EltwiseParam{1, {1, 1, 1}}, {{shape, shape, sameCount}});
  expectInitRefused(c, "E/eltwiseLayer impl init fail");
  c.sizes = {alike(3, shape), {shape, shape, sameCount}};
  expectReshapeRefused(c, "E/eltwise reshape fail");
}

TEST(Combining, MoreThanTenInputsAreRefused) {
  for (const char* type : {"Concat", "Eltwise"}) {
    const tools::ModelLayer source =
        type == std::string("Concat") ? layer(type, "", {}, ConcatParam{}) : layer(type, "", {}, EltwiseParam{});
    LayerCase c{"eleven inputs", source, {alike(11, {1, 1, 2, 2})}};
    expectInitRefused(c, type == std::string("Concat") ? "E/Unmatched concat layer's basic parameter"
                                                       : "E/Error: Unmatched eltwise layer's basic parameter");
  }
}

// ---- Crop

Expected crop(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const CropParam param = layer.specialAs<CropParam>();
  const Shape in = inputs[0].shape, size = inputs[1].shape;
  return generate({in.n, in.c, size.h, size.w}, [&](int n, int c, int h, int w) {
    return at(inputs[0], n, c, h + static_cast<int>(param.offset_h), w + static_cast<int>(param.offset_w));
  });
}

CropParam cropAt(uint32_t row, uint32_t column) { return {2, {7, 9}, row, column}; }

TEST(Crop, CutsAtTheOffsets) {
  runLayerCase(exactCase("inside", "Crop", cropAt(2, 3),
                         {{{1, 3, 10, 10}, {1, 5, 6, 6}},
                          {{2, 3, 12, 14}, {1, 5, 6, 6}},  // one output size, another input
                          {{2, 4, 9, 10}, {3, 1, 7, 7}},
                          {{1, 1, 3, 4}, {1, 1, 1, 1}},
                          {{1, 3, 20, 30}, {1, 2, 18, 27}}}),
               crop);
  runLayerCase(exactCase("everything", "Crop", cropAt(0, 0), {{{2, 3, 5, 7}, {2, 1, 5, 7}}}), crop);
}

TEST(Crop, RefusesWhatReachesBeyondItsInput) {
  const Shape in{1, 2, 6, 5};
  struct Row {
    CropParam param;
    Shape size;
  };
  const Row rows[] = {{cropAt(2, 0), {1, 1, 5, 5}},           {cropAt(0, 1), {1, 1, 6, 5}},
                      {cropAt(0, 0), {1, 1, 7, 5}},           {cropAt(0xffffffffu, 0), {1, 1, 1, 1}},
                      {cropAt(0, 0xfffffffeu), {1, 1, 2, 2}}, {cropAt(0x80000000u, 0x80000000u), {1, 1, 1, 1}}};
  for (const Row& row : rows) {
    LayerCase c =
        exactCase("offsets" + listed({static_cast<int>(row.param.offset_h), static_cast<int>(row.param.offset_w)}),
                  "Crop", row.param, {{in, row.size}});
    expectInitRefused(c, "E/CropLayer impl init fail");
  }
  expectReshapeRefused(exactCase("a later input is too small", "Crop", cropAt(1, 1),
                                 {{{1, 2, 6, 6}, {1, 1, 5, 5}}, {{1, 2, 6, 5}, {1, 1, 5, 5}}}),
                       "E/Crop reshape fail");
  CropParam wrongAxis = cropAt(0, 0);
  wrongAxis.axis = 1;
  expectInitRefused(exactCase("axis", "Crop", wrongAxis, {{in, in}}), "E/CropLayer just support axis 2");
  expectInitRefused(exactCase("one input", "Crop", cropAt(0, 0), {{in}}), "E/CropLayer bottom count error");
}

// ---- Flatten

TEST(Flatten, JoinsTheDimensionsBetweenItsAxes) {
  struct Row {
    FlattenParam param;
    int first, last;
  };
  const Row rows[] = {{{1, -1}, 1, 3},  {{0, -1}, 0, 3}, {{0, 3}, 0, 3},   {{2, 3}, 2, 3},
                      {{0, 1}, 0, 1},   {{1, 1}, 1, 1},  {{-3, -2}, 1, 2}, {{0, 0}, 0, 0},
                      {{-1, -1}, 3, 3}, {{3, 3}, 3, 3},  {{-4, -1}, 0, 3}};
  for (const Row& row : rows) {
    runLayerCase(exactCase("axes" + listed({row.param.axis, row.param.end_axis}), "Flatten", row.param, oneInput()),
                 [&row](const auto&, const auto& in) {
                   Shape shape{1, 1, 1, 1};
                   for (int d = 0; d < 4; ++d) shape[d < row.first ? 0 : d <= row.last ? 1 : 2] *= in[0].shape[d];
                   return prefix(in[0], shape);
                 });
  }
}

TEST(Flatten, RefusesAxesThatDoNotExist) {
  struct Row {
    FlattenParam param;
    bool namesNoDimension;
  };
  const int lowest = -0x7fffffff - 1;
  const Row rows[] = {{{4, 5}, true},  {{-5, 1}, true}, {{1, 4}, true},      {{0, 0x7fffffff}, true}, {{6, 1}, true},
                      {{3, 0}, false}, {{2, 0}, false}, {{lowest, 3}, true}, {{3, lowest}, true}};
  for (const Row& row : rows) {
    const LayerCase c =
        exactCase("axes" + listed({row.param.axis, row.param.end_axis}), "Flatten", row.param, {{{2, 3, 4, 5}}});
    expectInitRefused(c, "E/flattenLayer getAxisSize error");
    if (row.namesNoDimension) expectInitRefused(c, "D/Error axis for block");
  }
}

TEST(Flatten, DecidesOnceWhetherToHandItsInputOn) {
  const auto unchanged = [](const auto&, const auto& in) { return prefix(in[0], in[0].shape); };
  runLayerCase(exactCase("flat at first", "Flatten", FlattenParam{1, -1},
                         {{{2, 60, 1, 1}}, {{3, 70, 1, 1}}, {{2, 3, 4, 5}}, {{1, 1, 1, 1}}}),
               unchanged);
  runLayerCase(exactCase("flat later", "Flatten", FlattenParam{1, -1}, {{{2, 3, 4, 5}}, {{2, 60, 1, 1}}}),
               [](const auto&, const auto& in) {
                 return prefix(in[0], {2, 60, 1, 1});
               });

  for (const bool flat : {true, false}) {
    TestNet net({inputLayer("in", flat ? Shape{2, 60, 1, 1} : Shape{2, 3, 4, 5}),
                 layer("Flatten", "out", {"in"}, FlattenParam{1, -1})});
    ASSERT_EQ(net.status(), 0);
    const auto layers = net.net.getLayers();
    EXPECT_EQ(layers[0]->getTopData("in") == layers[1]->getTopData("out"), flat);
  }
}

// ---- Reshape

TEST(Reshape, EveryRule) {
  struct Row {
    ReshapeParam param;
    std::function<Shape(const Shape&)> shape;
  };
  const Row rows[] = {
      {{{0, -1, 1, 1}, 0, -1},
       [](const Shape& s) {
         return Shape{s.n, s.c * s.h * s.w, 1, 1};
       }},
      {{{-1, 0, 0, 0}, 0, -1}, [](const Shape& s) { return s; }},
      {{{0, 0, 0, 0}, 0, -1}, [](const Shape& s) { return s; }},
      {{{0, -2, -7, 0}, 0, -1}, [](const Shape& s) { return s; }},
      {{{1, 1, -1, 0}, 0, -1},
       [](const Shape& s) {
         return Shape{1, 1, s.n * s.c * s.h, s.w};
       }},
      {{{1, -1, 1, 1}, 0, -1},
       [](const Shape& s) {
         return Shape{1, s.n * s.c * s.h * s.w, 1, 1};
       }},
      {{{2, -1, 1, 1}, 0, -1},
       [](const Shape& s) {
         return Shape{2, s.n * s.c * s.h * s.w / 2, 1, 1};
       }},  // rounded
      {{{1, 1, 1, 2}, 0, -1},
       [](const Shape&) {
         return Shape{1, 1, 1, 2};
       }},  // a prefix
  };
  for (const Row& row : rows) {
    const int32_t* d = row.param.dim;
    LayerCase c = exactCase("dims" + listed({d[0], d[1], d[2], d[3]}), "Reshape", row.param, oneInput());
    c.sizes[2] = {{1, 2, 1, 1}};
    runLayerCase(c, [&row](const auto&, const auto& in) { return prefix(in[0], row.shape(in[0].shape)); });
  }
}

TEST(Reshape, SaysWhenADimensionIsNotGiven) {
  LogCapture log;
  TestNet net({inputLayer("in", {1, 2, 3, 4}), layer("Reshape", "out", {"in"}, ReshapeParam{{0, -2, 0, 0}, 0, -1})});
  EXPECT_EQ(net.status(), 0);
  EXPECT_TRUE(
      log.contains("D/no shape information are provided in this dim, code use same value as bottom dim size\n"));
}

TEST(Reshape, Refuses) {
  struct Row {
    ReshapeParam param;
    const char* line;
  };
  const char* initFail = "E/ReshapeLayer impl init fail\n";
  const Row rows[] = {{{{0, -1, 1, 1}, 1, -1}, "E/ReshapeLayer axis only support 0"},
                      {{{0, -1, 1, 1}, 0, 0}, "E/ReshapeLayer num_axes only support -1"},
                      {{{0, -1, -1, 1}, 0, -1},
                       "D/new shape contains multiple -1 dims, at most a single (1) value of -1 may be specified\n"},
                      {{{2, 3, 4, 6}, 0, -1}, initFail},
                      {{{0, 0, 0, 6}, 0, -1}, initFail},
                      {{{1000, -1, 1, 1}, 0, -1}, initFail},
                      {{{65536, 65536, 65536, 65536}, 0, -1}, initFail},
                      {{{65536, 65536, -1, 1}, 0, -1}, initFail},  // 0 in 32 bits
                      {{{0x7fffffff, 0x7fffffff, 0x7fffffff, -1}, 0, -1}, initFail}};
  for (const Row& row : rows) {
    const int32_t* d = row.param.dim;
    expectInitRefused(exactCase("dims" + listed({d[0], d[1], d[2], d[3]}), "Reshape", row.param, {{{2, 3, 4, 5}}}),
                      row.line);
  }
  expectReshapeRefused(exactCase("a later input is too small", "Reshape", ReshapeParam{{1, 1, 6, 20}, 0, -1},
                                 {{{2, 3, 4, 5}}, {{1, 7, 17, 1}}}),
                       "E/reshape layer reshape fail\n");
}

// ---- Permute

Expected permute(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const PermuteParam param = layer.specialAs<PermuteParam>();
  int order[4] = {0, 1, 2, 3};
  for (int d = 0; d < param.order_size; ++d) order[d] = static_cast<int>(param.order[d]);
  const Shape in = inputs[0].shape;
  return generate({in[order[0]], in[order[1]], in[order[2]], in[order[3]]}, [&](int n, int c, int h, int w) {
    Shape position;
    position[order[0]] = n;
    position[order[1]] = c;
    position[order[2]] = h;
    position[order[3]] = w;
    return at(inputs[0], position.n, position.c, position.h, position.w);
  });
}

TEST(Permute, EveryOrder) {
  PermuteParam param{4, {0, 1, 2, 3}};
  do {
    const auto digit = [&](int d) { return static_cast<int>(param.order[d]); };
    runLayerCase(exactCase("order" + listed({digit(0), digit(1), digit(2), digit(3)}), "Permute", param, oneInput()),
                 permute);
  } while (std::next_permutation(param.order, param.order + 4));
}

TEST(Permute, AShortOrderLeavesTheOtherAxesInPlace) {
  for (const PermuteParam& param : {PermuteParam{0, {3, 3, 3, 3}}, PermuteParam{1, {0, 9, 9, 9}},
                                    PermuteParam{2, {1, 0, 9, 9}}, PermuteParam{3, {2, 0, 1, 9}}}) {
    runLayerCase(exactCase("entries" + listed({param.order_size}), "Permute", param, oneInput()), permute);
  }
}

TEST(Permute, Refuses) {
  struct Row {
    PermuteParam param;
    const char* line;
  };
  const char* sizeError = "E/PermuteLayer orderSize error";
  const char* initFail = "E/PermuteLayer impl init fail";
  const Row rows[] = {
      {{5, {0, 1, 2, 3}}, sizeError}, {{-1, {0, 1, 2, 3}}, sizeError}, {{0x7fffffff, {0, 1, 2, 3}}, sizeError},
      {{4, {0, 0, 1, 2}}, initFail},  {{4, {0, 1, 2, 4}}, initFail},   {{4, {0, 1, 2, 0xffffffffu}}, initFail},
      {{1, {1, 0, 2, 3}}, initFail}};
  for (const Row& row : rows) {
    expectInitRefused(exactCase("entries" + listed({row.param.order_size}), "Permute", row.param, {{{2, 3, 4, 5}}}),
                      row.line);
  }
}

// Types that never work in place own their output even under their input's name: whoever asks for the name gets the
// input's block.
TEST(Shape, AnOutputUnderItsInputsNameIsABlockOfItsOwn) {
  const tools::ModelLayer layers[] = {layer("Power", "t", {"in"}, PowerParam{2, 1, 1}),
                                      layer("Softmax", "t", {"in"}, SoftmaxParam{1}),
                                      layer("Reshape", "t", {"in"}, ReshapeParam{{1, 1, 1, -1}, 0, -1}),
                                      layer("Flatten", "t", {"in"}, FlattenParam{1, -1}),
                                      layer("Permute", "t", {"in"}, PermuteParam{4, {3, 2, 1, 0}}),
                                      layer("Concat", "t", {"in", "in"}, ConcatParam{1}),
                                      layer("Eltwise", "t", {"in", "in"}, EltwiseParam{0, {}}),
                                      layer("Crop", "t", {"in", "in"}, cropAt(0, 0))};
  for (tools::ModelLayer tested : layers) {
    SCOPED_TRACE(tested.type);
    tested.tops = {"in"};
    const Tensor in = noise({2, 3, 4, 5}, 3);
    TestNet net({inputLayer("in", in.shape), tested, layer("Dropout", "after", {"in"}, DropoutParam{})});
    ASSERT_EQ(net.status(), 0);
    ASSERT_EQ(net.setInput("in", in), 0);
    ASSERT_EQ(net.run(), 0);
    EXPECT_EQ(net.output("in").values, in.values);
    EXPECT_EQ(net.output("after").values, in.values);
    const auto made = net.net.getLayers();
    EXPECT_NE(made[1]->getTopData("in"), made[0]->getTopData("in"));
  }
}

}  // namespace
}  // namespace corvalith::testing
