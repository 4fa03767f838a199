#include "net/net.h"

#include <gtest/gtest.h>

#include <map>

#include "tests/support/allocation_faults.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_net.h"

namespace corvalith {
namespace {

using namespace corvalith::testing;
using Lines = std::vector<std::string>;

std::shared_ptr<Model> modelOf(const std::vector<char>& bytes) {
  auto model = std::make_shared<Model>();
  model->loadModelDataFromMemory(bytes.data(), static_cast<int>(bytes.size()));
  return model;
}

tools::ModelLayer inPlace(tools::ModelLayer made) {
  made.tops = {made.bottoms[0]};
  return made;
}

tools::ModelLayer power(const std::string& name, const std::string& bottom, float scale, float shift) {
  return layer("Power", name, {bottom}, PowerParam{1, scale, shift});
}

tools::ModelLayer flatten(const std::string& name, const std::string& bottom) {
  return layer("Flatten", name, {bottom}, FlattenParam{1, -1});
}

/// A network that has done nothing yet, for tests of single steps.
struct BareNet {
  BareNet() : context(&device, CORVALITH_FP32), net(&context) { device.deviceInit(); }
  int build(const std::vector<tools::ModelLayer>& layers) {
    return net.buildInferenceNet(modelOf(tools::modelBytes("net", layers)));
  }
  CPUDevice device;
  CPUContext context;
  Net net;
};

TEST(NetBuild, ReportsTheRecordThatCannotBeRead) {
  const std::vector<tools::ModelLayer> layers = {inputLayer("data", {1, 1, 2, 2}), layer("ReLU", "relu", {"data"})};
  const std::vector<char> whole = tools::modelBytes("net", layers);
  const size_t firstRecord = sizeof(NetDescriptor) + sizeof(LayerTypeHeader);
  const size_t secondHeader = firstRecord + sizeof(LayerBasicParam) + sizeof(InputDataParam);
  const size_t secondRecord = secondHeader + sizeof(LayerTypeHeader);
  constexpr const char* kShort = "E/unmatched requested memory size";
  constexpr const char* kLast = "E/parser Model error";
  constexpr const char* kDescriptor = "D/descriptor_:1,1,2,2";
  const auto truncated = [&](size_t size) { return std::vector<char>(whole.begin(), whole.begin() + long(size)); };
  const auto patched = [&](size_t at, uint32_t value) {
    std::vector<char> bytes = whole;
    std::memcpy(&bytes[at], &value, sizeof value);
    return bytes;
  };
  auto wrongCase = layers;
  wrongCase[1].type = "Relu";
  auto longRecord = layers;
  longRecord[1].special.resize(1);

  const struct {
    std::vector<char> bytes;
    Lines lines;
  } cases[] = {
      {truncated(0), {kShort, "E/Failed to get net descriptor buffer", kLast}},
      {truncated(sizeof(NetDescriptor) - 1), {kShort, "E/Failed to get net descriptor buffer", kLast}},
      {truncated(sizeof(NetDescriptor)), {kShort, "E/Failed to get layer type buffer, layer index is 0", kLast}},
      {truncated(firstRecord), {kShort, "E/Failed to get layer data buffer, layer index is 0", kLast}},
      {truncated(secondRecord - 1),
       {kDescriptor, kShort, "E/Failed to get layer type buffer, layer index is 1", kLast}},
      {truncated(whole.size() - 1),
       {kDescriptor, kShort, "E/Failed to get layer data buffer, layer index is 1", kLast}},
      {patched(0, 0), {"D/model information err", kLast}},
      {patched(0, 3), {kDescriptor, kShort, "E/Failed to get layer type buffer, layer index is 2", kLast}},
      {patched(0, 4294967295u), {kDescriptor, kShort, "E/Failed to get layer type buffer, layer index is 2", kLast}},
      {patched(secondHeader, 2000),
       {kDescriptor, "E/Error: Unmatched ReLU layer's basic parameter",
        "E/Failed to set layer parameter, layer index is 1", kLast}},
      {patched(secondHeader, 0),
       {kDescriptor, "E/Error: Unmatched ReLU layer's basic parameter",
        "E/Failed to set layer parameter, layer index is 1", kLast}},
      {patched(secondHeader, 4294967295u),
       {kDescriptor, kShort, "E/Failed to get layer data buffer, layer index is 1", kLast}},
      {tools::modelBytes("net", longRecord),
       {kDescriptor, "E/Error: Unmatched ReLU layer's basic parameter",
        "E/Failed to set layer parameter, layer index is 1", kLast}},
      {tools::modelBytes("net", wrongCase),
       {kDescriptor, "E/not support layerType: Relu", "E/Failed to create Layer, layer index is 1", kLast}},
  };
  for (const auto& c : cases) {
    LogCapture log;
    BareNet bare;
    EXPECT_EQ(bare.net.buildInferenceNet(modelOf(c.bytes)), -1);
    EXPECT_EQ(log.lines(), c.lines);
  }
  std::vector<char> trailing = whole;
  trailing.resize(whole.size() + 5000, 'x');
  BareNet bare;
  LogCapture log;
  EXPECT_EQ(bare.net.buildInferenceNet(modelOf(trailing)), 0);
  EXPECT_EQ(bare.net.getLayerCout(), 2u);
  EXPECT_EQ(bare.net.getLayers().size(), 2u);
}

TEST(NetBuild, RefusesNamesWithoutAnEndAndCountsBeyondTheRecord) {
  const std::vector<tools::ModelLayer> layers = {inputLayer("data", {1, 1, 2, 2}), layer("ReLU", "relu", {"data"})};
  const std::vector<char> whole = tools::modelBytes("net", layers);
  const size_t record =
      sizeof(NetDescriptor) + 2 * sizeof(LayerTypeHeader) + sizeof(LayerBasicParam) + sizeof(InputDataParam);
  const size_t names[] = {offsetof(NetDescriptor, name), sizeof(NetDescriptor) + offsetof(LayerTypeHeader, type),
                          record + offsetof(LayerBasicParam, name), record + offsetof(LayerBasicParam, tops),
                          record + offsetof(LayerBasicParam, bottoms)};
  for (const size_t at : names) {
    std::vector<char> bytes = whole;
    std::fill_n(bytes.begin() + static_cast<long>(at), kNameSize, 'a');
    BareNet bare;
    LogCapture log;
    EXPECT_EQ(bare.net.buildInferenceNet(modelOf(bytes)), -1) << "name at " << at;
    bytes[at + kNameSize - 1] = 0;  // 99 characters are fine, though not as a type
    BareNet other;
    const bool isType = at == names[1];
    EXPECT_EQ(other.net.buildInferenceNet(modelOf(bytes)), isType ? -1 : 0) << "name at " << at;
  }
  for (const auto& [field, value] :
       {std::pair<size_t, uint32_t>{0, 0}, {0, 2}, {0, 11}, {0, 0x80000001u}, {4, 11}, {4, 0xffffffffu}}) {
    std::vector<char> bytes = whole;
    std::memcpy(&bytes[record + field], &value, sizeof value);
    BareNet bare;
    LogCapture log;
    EXPECT_EQ(bare.net.buildInferenceNet(modelOf(bytes)), -1) << field << " " << value;
  }
}

TEST(NetBuild, OneImageGivesIndependentNetworks) {
  const auto model = modelOf(tools::modelBytes("net", {inputLayer("data", {1, 1, 1, 2}), power("out", "data", 2, 1)}));
  BareNet a, b;
  for (BareNet* bare : {&a, &b}) {
    ASSERT_EQ(bare->net.buildInferenceNet(model), 0);
    ASSERT_EQ(bare->net.createGraph(), 0);
    ASSERT_EQ(bare->net.initInferenceNet(), 0);
  }
  EXPECT_NE(a.net.getLayers()[1], b.net.getLayers()[1]);
  float one[2] = {1, 1}, two[3] = {2, 2, 2}, out[3] = {};
  ASSERT_EQ(a.net.setInput(one, 1, 1, 1, 2, "data"), 0);
  ASSERT_EQ(b.net.setInput(two, 1, 1, 1, 3, "data"), 0);
  ASSERT_EQ(a.net.forward(true), 0);
  ASSERT_EQ(b.net.forward(true), 0);
  EXPECT_EQ(a.net.getNetOutput(out, 2), 0);
  EXPECT_EQ(out[1], 3);
  EXPECT_EQ(b.net.getNetOutput(out, 3), 0);
  EXPECT_EQ(out[1], 5);
}

tools::ModelLayer convLayer(const std::string& name, const std::string& bottom, int channels, int outputs, int kernel,
                            int group) {
  ConvParam conv{};
  conv.num_output = outputs;
  conv.kernel_h = conv.kernel_w = kernel;
  conv.pad_h = conv.pad_w = kernel / 2;
  conv.stride_h = conv.stride_w = 1;
  conv.group = group;
  tools::ModelLayer made = layer("Conv", name, {bottom}, conv);
  for (int i = 0; i < outputs * channels / group * kernel * kernel; ++i) {
    made.weights.push_back(static_cast<float>(i * 37 % 101 - 50) / 64);
  }
  for (int i = 0; i < outputs; ++i) made.biases.push_back(static_cast<float>(i % 7));
  return made;
}

// Sums of the same values in the same order, wherever the weights are: as a product, by Winograd, depthwise, transposed
// and fully connected; with few outputs, too, and records that begin at odd addresses.
TEST(NetBuild, AloneANetworkComputesTheSameFromTheImageItself) {
  tools::ModelLayer deconv = convLayer("deconv", "depthwise", 20, 20, 3, 1);
  deconv.type = "Deconv";
  tools::ModelLayer fc = layer("FC", "fc", {"deconv"}, FCParam{21});
  for (int i = 0; i < 21 * 20 * 36; ++i) fc.weights.push_back(static_cast<float>(i * 31 % 97 - 48) / 256);
  for (int i = 0; i < 21; ++i) fc.biases.push_back(static_cast<float>(i));
  std::vector<tools::ModelLayer> layers = {inputLayer("data", {1, 3, 6, 6}),
                                           convLayer("few", "data", 3, 5, 5, 1),
                                           convLayer("product", "few", 5, 20, 5, 1),
                                           convLayer("groups", "product", 20, 22, 1, 2),
                                           convLayer("winograd", "groups", 22, 20, 3, 1),
                                           convLayer("depthwise", "winograd", 20, 20, 5, 20),
                                           deconv,
                                           fc};
  const auto outputs = [&](bool alone) {
    BareNet bare;
    const auto model = modelOf(tools::modelBytes("net", layers));
    EXPECT_EQ(bare.net.buildInferenceNet(model, alone), 0);
    model->clearModelData();  // the network keeps what it needs
    EXPECT_EQ(bare.net.createGraph(), 0);
    EXPECT_EQ(bare.net.initInferenceNet(), 0);
    std::vector<float> all;
    for (const int batch : {1, 3}) {
      std::vector<float> in(static_cast<size_t>(batch) * 3 * 36), out(static_cast<size_t>(batch) * 21);
      for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i % 11) - 5;
      EXPECT_EQ(bare.net.setInput(in.data(), batch, 3, 6, 6, "data"), 0);
      EXPECT_EQ(bare.net.forward(true), 0);
      EXPECT_EQ(bare.net.getNetOutput(out.data(), static_cast<int>(out.size())), 0);
      all.insert(all.end(), out.begin(), out.end());
    }
    return all;
  };
  const std::vector<float> copied = outputs(false);
  EXPECT_NE(copied.front(), copied.back());
  EXPECT_EQ(outputs(true), copied);
}

// Converted weights have no place on a CPU device.
TEST(NetBuild, AHalfPrecisionModelDoesNotInitialiseOnTheCpu) {
  ConvParam conv;
  conv.num_output = conv.kernel_h = conv.kernel_w = conv.stride_h = conv.stride_w = conv.group = 1;
  tools::ModelLayer convLayer = layer("Conv", "conv", {"data"}, conv);
  convLayer.weights = convLayer.biases = {1.0f};
  const auto model = modelOf(tools::modelBytes("net", {inputLayer("data", {1, 1, 2, 2}), convLayer}));
  model->setNbModel(true);
  LogCapture log;
  BareNet bare;
  EXPECT_EQ(bare.net.buildInferenceNet(model), 0);
  EXPECT_EQ(log.take(),
            (Lines{"D/descriptor_:1,1,2,2", "E/block CorvalithMalloc failed", "E/block CorvalithMalloc failed",
                   "E/block create fail", "D/parse nbmodel data failed at layer 1", "D/read without thread"}));
  EXPECT_EQ(bare.net.createGraph(), 0);
  EXPECT_EQ(bare.net.initInferenceNet(), -1);
  EXPECT_EQ(bare.net.forward(false), -1);

  const auto noWeights = modelOf(tools::modelBytes("net", {inputLayer("data", {1, 1, 2, 2})}));
  noWeights->setNbModel(true);
  BareNet fine;
  EXPECT_EQ(fine.net.buildInferenceNet(noWeights), 0);
  EXPECT_EQ(fine.net.createGraph(), 0);
  EXPECT_EQ(fine.net.initInferenceNet(), 0);
  log.take();
  fine.net.setNBData(true);
  EXPECT_EQ(fine.net.initInferenceNet(), 0) << "it is initialised already";

  Net empty(&fine.context);
  EXPECT_EQ(thread1(&empty), nullptr);
  EXPECT_EQ(log.lines(), Lines{"E/incorrect layer count"});
}

TEST(NetGraph, FindsTheFirstProducerOfEveryName) {
  // An in-place layer changes the block that its producer's other consumers read; "b" comes before "a" in the model.
  TestNet net({inputLayer("data", {1, 1, 1, 2}), power("a", "data", 1, -2), inPlace(layer("ReLU", "relu", {"a"})),
               power("b", "a", 10, 1), layer("Concat", "ab", {"b", "a"}, ConcatParam{1})});
  ASSERT_EQ(net.status(), 0);
  EXPECT_EQ(net.net.getLayerFromTopName("a")->getName(), "a");
  EXPECT_EQ(net.net.getLayerFromName("relu")->getName(), "relu");
  EXPECT_EQ(net.net.getLayerFromTopName("relu"), nullptr);
  EXPECT_EQ(net.net.getLayerFromName("A"), nullptr);
  ASSERT_EQ(net.setInput("data", {{1, 1, 1, 2}, {1, 5}}), 0);
  ASSERT_EQ(net.run(), 0);
  EXPECT_EQ(net.output("ab").values, (std::vector<float>{1, 31, 0, 3}));
  EXPECT_EQ(net.output("a").values, (std::vector<float>{0, 3}));  // what the in-place layer left
}

TEST(NetGraph, AReusedNameKeepsItsFirstBlock) {
  // Power never works in place: its output is a block of its own, which nobody finds by that name.
  TestNet net({inputLayer("data", {1, 1, 1, 1}), inPlace(power("p", "data", 2, 0)), power("out", "data", 1, 0)});
  ASSERT_EQ(net.status(), 0);
  ASSERT_EQ(net.setInput("data", {{1, 1, 1, 1}, {3}}), 0);
  ASSERT_EQ(net.run(), 0);
  EXPECT_EQ(net.output("out").values, std::vector<float>{3});
}

/// What a network of inputs, "Power", in-place "ReLU" and channel-wise "Concat" layers of one image computes.
std::map<std::string, std::vector<float>> expectedTops(const std::vector<tools::ModelLayer>& layers,
                                                       const std::map<std::string, Tensor>& inputs) {
  std::map<std::string, std::vector<float>> tops;
  for (const tools::ModelLayer& made : layers) {
    std::vector<float> y;
    for (const std::string& bottom : made.bottoms) y.insert(y.end(), tops[bottom].begin(), tops[bottom].end());
    for (float& value : y) {
      if (made.type == "Power") value = value * made.specialAs<PowerParam>().scale + made.specialAs<PowerParam>().shift;
      if (made.type == "ReLU") value = std::max(value, 0.0f);
    }
    tops[made.tops[0]] = made.bottoms.empty() ? inputs.at(made.name).values : y;
  }
  return tops;
}

TEST(NetMemory, InputsOfAConcatLieInItsOutputWhereNobodySeesIt) {
  const auto concat = [](const std::string& name, std::vector<std::string> bottoms) {
    return layer("Concat", name, std::move(bottoms), ConcatParam{1});
  };
  const std::vector<tools::ModelLayer> start = {inputLayer("x", {1, 3, 2, 3}), inputLayer("y", {1, 2, 2, 3}),
                                                power("p", "x", 2, 1), power("q", "y", -1, 3), power("r", "x", 3, 0)};
  const struct {
    const char* name;
    std::vector<tools::ModelLayer> layers;
    bool shared;  // "p" lies in "j"
  } cases[] = {
      {"in the order of the layers", {concat("j", {"p", "q", "r"}), power("out", "j", 2, 0)}, true},
      {"in another order", {concat("j", {"r", "q", "p"}), power("out", "j", 2, 0)}, true},
      {"changed in place before", {inPlace(layer("ReLU", "relu", {"p"})), concat("j", {"q", "p"})}, true},
      {"changed in place after", {concat("j", {"q", "p"}), inPlace(layer("ReLU", "relu", {"p"}))}, false},
      {"the output is changed in place", {concat("j", {"q", "p"}), inPlace(layer("ReLU", "relu", {"j"}))}, false},
      {"one input twice", {concat("j", {"p", "q", "p"})}, false},
      {"two that share an input", {concat("other", {"p", "q"}), concat("j", {"r", "p"})}, true},
      {"one in another", {concat("inner", {"p", "q"}), concat("j", {"r", "inner"})}, false},
      {"an input of the network", {concat("j", {"x", "p"})}, true},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    std::vector<tools::ModelLayer> layers = start;
    layers.insert(layers.end(), test.layers.begin(), test.layers.end());
    TestNet net(layers);
    ASSERT_EQ(net.status(), 0);
    // Both grow, both shrink, one takes channels from the other, one grows alone.
    const Shape shapes[][2] = {{{1, 3, 2, 3}, {1, 2, 2, 3}}, {{1, 3, 5, 7}, {1, 2, 5, 7}},
                               {{1, 3, 1, 3}, {1, 2, 1, 3}}, {{1, 2, 1, 3}, {1, 3, 1, 3}},
                               {{1, 4, 1, 3}, {1, 1, 1, 3}}, {{1, 4, 1, 3}, {1, 9, 1, 3}}};
    for (const auto& [x, y] : shapes) {
      for (const uint32_t seed : {1u, 2u}) {
        const std::map<std::string, Tensor> inputs = {{"x", noise(x, seed)}, {"y", noise(y, seed + 2)}};
        for (const auto& [name, tensor] : inputs) ASSERT_EQ(net.setInput(name, tensor), 0);
        ASSERT_EQ(net.run(), 0);
        for (const auto& [top, values] : expectedTops(layers, inputs)) {
          EXPECT_EQ(net.output(top).values, values) << top << " at " << x.c << "x" << x.h << "x" << x.w;
        }
      }
    }
    const Block* joined = net.net.getLayerFromTopName("j")->getTopData("j");
    const float* p = floats(net.net.getLayerFromTopName("p")->getTopData("p"));
    EXPECT_EQ(p >= floats(joined) && p < floats(joined) + joined->getSize(), test.shared);
    // Two images are joined in turn, so that nothing can lie in the output; then one again.
    const auto runBatch = [&](int images) {
      for (const char* name : {"x", "y"}) EXPECT_EQ(net.setInput(name, noise({images, 2, 3, 3}, 5)), 0);
      EXPECT_EQ(net.run(), 0);
      return std::vector<Tensor>{net.output("p"), net.output("j")};
    };
    const std::vector<Tensor> one = runBatch(1), two = runBatch(2), again = runBatch(1);
    for (size_t i = 0; i < one.size(); ++i) {
      EXPECT_EQ(one[i].values, again[i].values);
      EXPECT_TRUE(std::equal(one[i].values.begin(), one[i].values.end(), two[i].values.begin()));
    }
  }
}

TEST(NetMemory, AConcatThatFindsNoMemoryForALargerImageRunsOn) {
  TestNet net({inputLayer("x", {1, 3, 2, 3}), inputLayer("y", {1, 2, 2, 3}), power("p", "x", 2, 1),
               power("q", "y", -1, 3), layer("Concat", "j", {"p", "q"}, ConcatParam{1})});
  ASSERT_EQ(net.status(), 0);
  const Tensor x = noise({1, 3, 2, 3}, 1), small = noise({1, 2, 2, 3}, 2), large = noise({1, 4, 2, 3}, 3);
  const auto run = [&](const Tensor& y) {
    return net.setInput("x", x) == 0 && net.setInput("y", y) == 0 && net.run() == 0 ? net.output("j").values
                                                                                    : std::vector<float>();
  };
  const std::vector<float> want = run(small);
  bool failing = true;
  for (long number = 0; failing && number < 100; ++number) {
    try {
      const AllocationFault fault(number, AllocationFault::kNewAndMalloc);
      run(large);
      failing = fault.happened();
    } catch (const std::bad_alloc&) {
    }
    EXPECT_EQ(run(small), want);
    EXPECT_EQ(run(large).size(), 7u * 6);
    EXPECT_EQ(run(small), want);
  }
  EXPECT_FALSE(failing);
}

TEST(NetGraph, RefusesInputsThatNoEarlierLayerMakes) {
  const tools::ModelLayer data = inputLayer("data", {1, 1, 1, 1});
  const std::vector<std::vector<tools::ModelLayer>> models = {
      {data, layer("ReLU", "relu", {"missing"})},
      {data, layer("ReLU", "relu", {"Data"})},
      {data, layer("ReLU", "relu", {"relu"})},  // its own output
      {layer("ReLU", "relu", {"data"}), data},  // a later layer's
      {data, layer("Concat", "c", {"data", "later"}), power("later", "data", 1, 0)},
  };
  for (const auto& layers : models) {
    LogCapture log;
    BareNet bare;
    ASSERT_EQ(bare.build(layers), 0);
    log.take();
    EXPECT_EQ(bare.net.createGraph(), -1);
    EXPECT_EQ(log.lines(), (Lines{"E/The Structure of Model Error", "E/Find bottom layer fail"}));
    EXPECT_EQ(bare.net.initInferenceNet(), -1);
    EXPECT_EQ(bare.net.forward(false), -1);
  }
  LogCapture log;
  BareNet empty;
  EXPECT_EQ(empty.net.createGraph(), -1);
  EXPECT_EQ(empty.net.connectTops(), -1);
  EXPECT_EQ(log.lines(), (Lines{"E/incorrect layer count", "E/Find bottom layer fail", "E/incorrect layer count"}));
}

TEST(NetState, RunsOnlyWhatWasInitialised) {
  BareNet bare;
  EXPECT_EQ(bare.net.initInferenceNet(), -1);
  ASSERT_EQ(bare.build({inputLayer("data", {1, 1, 1, 2}), power("out", "data", 1, 1)}), 0);
  EXPECT_EQ(bare.net.initInferenceNet(), -1) << "not connected";
  ASSERT_EQ(bare.net.createGraph(), 0);
  EXPECT_EQ(bare.net.forward(false), -1);
  float values[2] = {1, 2};
  int n, c, h, w;
  LogCapture log;
  EXPECT_EQ(bare.net.setInput(values, 1, 1, 1, 2, "data"), -1);
  EXPECT_EQ(bare.net.getNetOutput(values, 2), -1);
  EXPECT_EQ(bare.net.getLayerOutput(values, 2, "out"), -1);
  EXPECT_EQ(bare.net.getNetOutputCount(&n, &c, &h, &w), -1);
  EXPECT_EQ(bare.net.getDefaultInputSize(&n, &c, &h, &w, "data"), 0);
  EXPECT_EQ(w, 2);
  EXPECT_EQ(log.take(), (Lines{"E/SetInput inputData Not Exist", "E/GetNetOutput netTop Not Exist",
                               "E/GetLayerOutput layerTop Not Exist", "E/GetLayerOutputCount layerTop Not Exist",
                               "E/get output count failed"}));
  ASSERT_EQ(bare.net.initInferenceNet(), 0);
  const std::vector<std::shared_ptr<Layer>> layers = bare.net.getLayers();
  Block* const top = layers[1]->getTopData("out");
  EXPECT_EQ(bare.net.initInferenceNet(), 0);
  EXPECT_EQ(layers[1]->getTopData("out"), top) << "initialised again";
  ASSERT_EQ(bare.net.getNetOutput(values, 2), 0);
  EXPECT_EQ(values[0], 0);  // zeros before the first run
  EXPECT_EQ(values[1], 0);
  EXPECT_EQ(bare.net.forward(true), 0);
}

TEST(NetState, AFailedInitialisationIsFinal) {
  BareNet bare;
  ASSERT_EQ(bare.build({inputLayer("data", {1, 1, 1, 2}), layer("Softmax", "out", {"data"}, SoftmaxParam{4}),
                        power("later", "out", 1, 1)}),
            0);
  ASSERT_EQ(bare.net.createGraph(), 0);
  LogCapture log;
  EXPECT_EQ(bare.net.initInferenceNet(), -1);
  EXPECT_EQ(log.take(), (Lines{"E/SoftmaxLayer axis error", "E/Layer 1 init fail"}));
  EXPECT_EQ(bare.net.initInferenceNet(), -1);
  EXPECT_EQ(bare.net.forward(false), -1);
  float value = 0;
  int n, c, h, w;
  EXPECT_EQ(bare.net.getLayerOutput(&value, 1, "later"), -1);
  EXPECT_EQ(bare.net.getLayerOutputCount(3, &n, &c, &h, &w), -1);
}

TEST(NetRun, ANewInputSizeReachesEveryLayer) {
  TestNet net({inputLayer("data", {1, 2, 2, 2}), inPlace(layer("ReLU", "relu", {"data"})), power("p", "data", 3, 0),
               flatten("flat", "p")});
  ASSERT_EQ(net.status(), 0);
  for (const Shape& s : {Shape{1, 2, 2, 2}, {2, 3, 4, 5}, {1, 1, 1, 1}, {1, 2, 2, 2}}) {
    const Tensor input = noise(s, 1);
    ASSERT_EQ(net.setInput("data", input), 0);
    ASSERT_EQ(net.run(), 0);
    const Tensor output = net.output("flat");
    ASSERT_EQ(output.shape, (Shape{s.n, s.c * s.h * s.w, 1, 1}));
    for (size_t i = 0; i < input.values.size(); ++i) EXPECT_EQ(output.values[i], std::max(0.0f, input.values[i]) * 3);
  }
}

TEST(NetRun, AFailedPassLeavesTheNetworkUsable) {
  // Only the batch of an FC layer's input may change.
  tools::ModelLayer fc = layer("FC", "fc", {"data"}, FCParam{1});
  fc.weights = {1, 1};
  fc.biases = {0};
  TestNet net({inputLayer("data", {1, 2, 1, 1}), fc});
  ASSERT_EQ(net.status(), 0);
  LogCapture log;
  ASSERT_EQ(net.setInput("data", {{1, 3, 1, 1}, {1, 2, 3}}), 0);
  EXPECT_EQ(net.run(), -1);
  EXPECT_EQ(log.lines(), (Lines{"D/FC layer can not reshape channel, height, width", "E/Layer 1 reshape fail"}));
  ASSERT_EQ(net.setInput("data", {{2, 2, 1, 1}, {1, 2, 3, 4}}), 0);
  ASSERT_EQ(net.run(), 0);
  EXPECT_EQ(net.output("fc").values, (std::vector<float>{3, 7}));
}

TEST(NetRun, InputsAreAddressedByTheNameOfAnInputLayer) {
  tools::ModelLayer data = inputLayer("data", {1, 1, 1, 2});
  data.tops = {"top"};
  TestNet net({data, power("out", "top", 1, 0)});
  ASSERT_EQ(net.status(), 0);
  float values[2] = {};
  int n, c, h, w;
  LogCapture log;
  EXPECT_EQ(net.net.setInput(values, 1, 1, 1, 2, "data"), 0);
  for (const char* name : {"top", "out", "Data", ""}) {  // a top name, a layer of another type, wrong case
    EXPECT_EQ(net.net.setInput(values, 1, 1, 1, 2, name), -1);
    EXPECT_EQ(net.net.getDefaultInputSize(&n, &c, &h, &w, name), -1);
    EXPECT_EQ(log.take(), (Lines(2, "E/get layer failed,try layerName: data"))) << name;
    EXPECT_EQ(net.net.setMaxInputSize(1, 1, 1, 2, name), -1);
    EXPECT_EQ(log.take(), Lines{"E/get layer failed"});
  }
  EXPECT_EQ(net.net.setInput(values, 1, 1, 1, 2, nullptr), -1);
  EXPECT_EQ(net.net.setMaxInputSize(1, 1, 1, 2, nullptr), -1);
  EXPECT_EQ(net.net.getDefaultInputSize(&n, &c, &h, &w, nullptr), -1);
  EXPECT_EQ(log.take(), (Lines(3, "E/layer name is err")));
  EXPECT_EQ(net.net.setInput(nullptr, 1, 1, 1, 2, "data"), -1);
  EXPECT_EQ(log.take(), (Lines{"E/input buffer err", "E/set input failed"}));

  BareNet empty;
  EXPECT_EQ(empty.net.setInput(values, 1, 1, 1, 2, "data"), -1);
  EXPECT_EQ(empty.net.getDefaultInputSize(&n, &c, &h, &w, "data"), -1);
  EXPECT_EQ(empty.net.getNetOutput(values, 1), -1);
  EXPECT_EQ(log.take(), (Lines(3, "E/count of layer in the net error")));
}

TEST(NetRun, RefusesInputSizesThatNoTensorHas) {
  TestNet net({inputLayer("data", {1, 1, 1, 2}), power("out", "data", 1, 0)});
  ASSERT_EQ(net.status(), 0);
  ASSERT_EQ(net.setInput("data", {{1, 1, 1, 2}, {1, 2}}), 0);
  float value = 0;
  const Shape shapes[] = {{0, 1, 1, 2},
                          {-1, -1, 1, 2},
                          {-1, 1, 1, 1},
                          {1, 1, 1, -2},
                          {65536, 65536, 1, 1},
                          {3, 1431655766, 1, 1},
                          {1, 1, 1 << 20, 1 << 20},
                          {2147483647, 2147483647, 3, 3}};
  for (const Shape& s : shapes) {
    EXPECT_EQ(net.net.setInput(&value, s.n, s.c, s.h, s.w, "data"), -1);
    EXPECT_EQ(net.net.setMaxInputSize(s.n, s.c, s.h, s.w, "data"), -1);
  }
  ASSERT_EQ(net.run(), 0);
  EXPECT_EQ(net.output("out").values, (std::vector<float>{1, 2}));
}

TEST(NetRun, TheMaximumSizeIsWhatInputsAreMadeWith) {
  BareNet bare;
  ASSERT_EQ(bare.build({inputLayer("data", {1, 1, 1, 2}), power("out", "data", 1, 0)}), 0);
  ASSERT_EQ(bare.net.createGraph(), 0);
  EXPECT_EQ(bare.net.setMaxInputSize(2, 1, 3, 4, "data"), 0);
  ASSERT_EQ(bare.net.initInferenceNet(), 0);
  int n, c, h, w;
  ASSERT_EQ(bare.net.getNetOutputCount(&n, &c, &h, &w), 0);
  EXPECT_EQ((Shape{n, c, h, w}), (Shape{2, 1, 3, 4}));
  EXPECT_EQ(bare.net.setMaxInputSize(5, 5, 5, 5, "data"), 0);  // too late to matter
  ASSERT_EQ(bare.net.getNetOutputCount(&n, &c, &h, &w), 0);
  EXPECT_EQ(n, 2);
  ASSERT_EQ(bare.net.getDefaultInputSize(&n, &c, &h, &w, "data"), 0);
  EXPECT_EQ((Shape{n, c, h, w}), (Shape{1, 1, 1, 2}));
}

TEST(NetRun, OutputsAreQueriedByNameAndByNumber) {
  TestNet net({inputLayer("data", {1, 1, 1, 2}), power("a", "data", 2, 0), power("b", "a", 2, 0)});
  ASSERT_EQ(net.status(), 0);
  ASSERT_EQ(net.setInput("data", {{1, 1, 1, 2}, {1, 2}}), 0);
  ASSERT_EQ(net.run(), 0);
  float out[3] = {};
  int n, c, h, w;
  LogCapture log;
  for (int number = 1; number <= 3; ++number) {  // numbers count from 1
    EXPECT_EQ(net.net.getLayerOutput(out, 2, number), 0);
    EXPECT_EQ(out[0], static_cast<float>(1 << (number - 1)));
    EXPECT_EQ(net.net.getLayerOutputCount(number, &n, &c, &h, &w), 0);
    EXPECT_EQ(w, 2);
  }
  EXPECT_EQ(net.net.getNetOutput(out, 2), 0);
  EXPECT_EQ(out[1], 8);
  EXPECT_TRUE(log.lines().empty());

  for (const int number : {0, -1, 4, -2147483647 - 1}) EXPECT_EQ(net.net.getLayerOutput(out, 2, number), -1);
  EXPECT_EQ(log.take(), (Lines(4, "E/layer index is err")));
  for (const int number : {0, -1}) EXPECT_EQ(net.net.getLayerOutputCount(number, &n, &c, &h, &w), -1);
  EXPECT_EQ(net.net.getLayerOutputCount(4, &n, &c, &h, &w), -1);
  EXPECT_EQ(log.take(), (Lines{"E/layer index error", "E/layer index error", "E/layer index should be less 3"}));
  EXPECT_EQ(net.net.getLayerOutput(out, 3, 2), -1);
  EXPECT_EQ(log.take(), (Lines{"E/memory count error, it's should be 2", "E/get layer output failed"}));
  for (const int count : {1, 3, -2, 2147483647}) {
    EXPECT_EQ(net.net.getNetOutput(out, count), -1);
    EXPECT_EQ(net.net.getLayerOutput(out, count, "a"), -1);
  }
  EXPECT_EQ(log.take(), (Lines(8, "E/memory count error, it's should be 2")));
  EXPECT_EQ(net.net.getLayerOutput(out, 2, "c"), -1);
  EXPECT_EQ(net.net.getLayerOutputCount("c", &n, &c, &h, &w), -1);
  EXPECT_EQ(log.take(), (Lines{"E/GetLayerOutput layerName Not Exist", "E/GetLayerOutputCount layerName Not Exist"}));
}

TEST(NetDump, NeedsAHalfPrecisionGpu) {
  BareNet bare;
  LogCapture log;
  EXPECT_EQ(bare.net.parserModelForDump(std::make_shared<Model>(), "nowhere"), -1);
  EXPECT_EQ(log.lines(), Lines{"E/model dump need GPU fp16 type"});
}

}  // namespace
}  // namespace corvalith
