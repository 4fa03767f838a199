#include "tests/api/message_scenarios.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <utility>

#include "tests/support/allocation_faults.h"

namespace corvalith::testing {
namespace {

bool isInputType(const std::string& type) { return type == "InputData" || type == "Data"; }

/// A directory that goes at the end of the program.
struct TemporaryDirectory {
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "corvalith-messages-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
  }
  std::filesystem::path path;
};

class BrokenImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const&, Blocks const&, void*, Block*, Block*) override { return -1; }
  int reshape(Blocks const&, Blocks const&, void*, Block*, Block*) override { return -1; }
};

/// Reaches what Layer keeps for its derived classes.
struct LayerMembers : Layer {
  static std::unique_ptr<Impl> Layer::*impl() { return &LayerMembers::impl_; }
};

/// Calls with every allocation failing in turn, on a fresh agent each time.
void withEveryAllocationFailing(const std::function<void(PublicAgent&)>& prepare,
                                const std::function<int(PublicAgent&)>& call) {
  for (long number = 0;; ++number) {
    PublicAgent agent;
    prepare(agent);
    const AllocationFault memory(number, AllocationFault::kNewAndMalloc);
    const int status = call(agent);
    EXPECT_EQ(status, memory.happened() ? -1 : 0) << "allocation " << number;
    if (!memory.happened()) return;
  }
}

void buildAndInitialise(PublicAgent& agent, const tools::ModelLayer& layer) {
  ASSERT_EQ(agent.build(netOf(layer)), 0);
  ASSERT_EQ(CorvalithInitialize(agent.handle()), 0);
}

template <class Record>
void set(tools::ModelLayer& layer, Record record) {
  layer.setSpecial(record);
}

ConvParam smallConv() {
  ConvParam p;
  p.num_output = 2;
  p.kernel_h = p.kernel_w = 2;
  p.stride_h = p.stride_w = 1;
  p.pad_h = p.pad_w = 1;
  p.group = 1;
  return p;
}

}  // namespace

std::string temporaryPath(const std::string& name) {
  static const TemporaryDirectory directory;
  return (directory.path / name).string();
}

PublicAgent::PublicAgent(int slots) {
  const std::vector<int> cpus(kMaxCpuSlots, CORVALITH_CPU), floats(kMaxCpuSlots, CORVALITH_FP32), ids(kMaxCpuSlots, 0);
  handle_ = CorvalithBuildAgent(cpus.data(), floats.data(), ids.data(), slots);
}

int PublicAgent::build(const std::vector<char>& model) {
  const std::string path = temporaryPath("model.cvm");
  std::ofstream(path, std::ios::binary).write(model.data(), static_cast<std::streamsize>(model.size()));
  return CorvalithBuildModel(handle_, path.c_str());
}

int PublicAgent::feed(const std::string& layerName, const Shape& s) {
  std::vector<float> zeros(static_cast<size_t>(s.elements()));
  return CorvalithSetNetInput(handle_, zeros.data(), s.n, s.c, s.h, s.w, layerName.c_str(), 0);
}

tools::ModelLayer valid(const std::string& type) {
  if (type == "Conv 3x3") {
    tools::ModelLayer conv = changed<ConvParam>("Conv", [](ConvParam& p) { p.kernel_h = p.kernel_w = 3; });
    conv.weights.resize(2 * 3 * 3 * 3, 1);
    return conv;
  }
  tools::ModelLayer made = layer(type, "tested", {"in"});
  if (type == "Concat" || type == "Eltwise" || type == "Crop" || type == "PriorBox") made.bottoms = {"in", "in2"};
  if (type == "DetectionOutput") made.bottoms = {"in", "in2", "in3"};
  if (isInputType(type)) made.bottoms.clear();
  const auto uintOf = [](int value) { return static_cast<uint32_t>(value); };

  if (type == "InputData")
    set(made, InputDataParam{uintOf(kInput.n), uintOf(kInput.c), uintOf(kInput.h), uintOf(kInput.w)});
  if (type == "Data")
    set(made, DataParam{uintOf(kInput.n), uintOf(kInput.c), uintOf(kInput.h), uintOf(kInput.w), 2, 0, 1, {}});
  if (type == "Conv" || type == "Deconv") {
    set(made, smallConv());
    made.weights.resize(2 * 3 * 2 * 2, 1);
    made.biases.resize(2, 1);
  }
  if (type == "FC") {
    set(made, FCParam{2});
    made.weights.resize(2 * 3 * 4 * 4, 1);
    made.biases.resize(2, 1);
  }
  if (type == "Pooling") set(made, PoolingParam{0, 2, 0, 2, 0});
  if (type == "LRN") set(made, LRNParam{1, 1, 3, 1});
  if (type == "Power") set(made, PowerParam{1, 1, 0});
  if (type == "Dropout") set(made, DropoutParam{});
  if (type == "PReLU") made.biases.resize(3, 1);
  if (type == "Scale") set(made, ScaleParam{});
  if (type == "BatchNorm") set(made, BatchNormParam{1, 0});
  if (type == "Scale" || type == "BatchNorm") {
    made.weights.resize(3, 1);
    made.biases.resize(3, 1);
  }
  if (type == "Concat") set(made, ConcatParam{1});
  if (type == "Eltwise") set(made, EltwiseParam{1, {1, 1}});
  if (type == "Crop") set(made, CropParam{2, {}, 0, 0});
  if (type == "Flatten") set(made, FlattenParam{1, -1});
  if (type == "Reshape") set(made, ReshapeParam{{0, -1, 1, 1}, 0, -1});
  if (type == "Permute") set(made, PermuteParam{4, {0, 2, 3, 1}});
  if (type == "Softmax") set(made, SoftmaxParam{1});
  if (type == "PriorBox") {
    PriorBoxParam p;
    p.min_size_count = p.variance_count = p.ratio_count = p.num_priors = 1;
    p.min_sizes[0] = p.variances[0] = 1;
    set(made, p);
  }
  if (type == "DetectionOutput") {
    DetectionOutputParam p;
    p.num_classes = 2;
    p.keep_top_k = p.code_type = 1;
    set(made, p);
  }
  return made;
}

Shape inputShape(const std::string& type, size_t input) {
  // One prior box and two classes: locations, confidences, priors.
  constexpr Shape kDetection[] = {{1, 4, 1, 1}, {1, 2, 1, 1}, {1, 2, 4, 1}};
  return type == "DetectionOutput" && input < 3 ? kDetection[input] : kInput;
}

std::vector<tools::ModelLayer> netOf(const tools::ModelLayer& tested) {
  std::vector<tools::ModelLayer> layers;
  for (const std::string& bottom : tested.bottoms) {
    layers.push_back(inputLayer(bottom, inputShape(tested.type, layers.size())));
  }
  layers.push_back(tested);
  return layers;
}

std::vector<char> modelWithRecordSize(const std::string& type, size_t size) {
  const tools::ModelLayer tested = valid(type);
  std::vector<tools::ModelLayer> inputs = netOf(tested);
  inputs.pop_back();
  std::vector<char> bytes = tools::modelBytes("test", inputs);
  const uint32_t layerCount = static_cast<uint32_t>(inputs.size() + 1);
  std::memcpy(bytes.data(), &layerCount, sizeof layerCount);
  LayerTypeHeader header{};
  header.recordSize = static_cast<uint32_t>(size);
  type.copy(header.type, kNameSize - 1);
  tools::appendBytes(bytes, header);
  std::vector<char> record = tools::layerRecord(tested);
  record.resize(size);
  bytes.insert(bytes.end(), record.begin(), record.end());
  return bytes;
}

void shortRecord(const std::string& type) {
  PublicAgent().build(modelWithRecordSize(type, sizeof(LayerBasicParam) - 1));
}

void wrongSpecial(const std::string& type) {
  tools::ModelLayer layer = valid(type);
  layer.special.assign(3, 0);
  PublicAgent().build(netOf(layer));
}

void wrongBottoms(const std::string& type) {
  tools::ModelLayer layer = valid(type);
  layer.bottoms.clear();
  if (isInputType(type)) layer.bottoms = {"in"};
  initialised(layer)();
}

Scenario initialised(tools::ModelLayer layer) {
  return [=] {
    PublicAgent agent;
    ASSERT_EQ(agent.build(netOf(layer)), 0);
    CorvalithInitialize(agent.handle());
  };
}

Scenario resized(tools::ModelLayer layer, Shape in) {
  return [=] {
    PublicAgent agent;
    ASSERT_EQ(agent.build(netOf(layer)), 0);
    ASSERT_EQ(CorvalithInitialize(agent.handle()), 0);
    ASSERT_EQ(CorvalithExecuteNet(agent.handle()), 0);
    ASSERT_EQ(agent.feed(layer.bottoms.empty() ? layer.name : "in", in), 0);
    CorvalithExecuteNet(agent.handle());
  };
}

void outOfMemoryInBuild(const std::string& type) {
  const std::string path = temporaryPath("model.cvm");
  PublicAgent().build(netOf(valid(type)));
  withEveryAllocationFailing([](PublicAgent&) {},
                             [&](PublicAgent& agent) { return CorvalithBuildModel(agent.handle(), path.c_str()); });
}

void outOfMemoryInInit(const std::string& type) {
  withEveryAllocationFailing([&](PublicAgent& agent) { ASSERT_EQ(agent.build(netOf(valid(type))), 0); },
                             [](PublicAgent& agent) { return CorvalithInitialize(agent.handle()); });
}

void outOfMemoryInInput(const std::string& type) {
  withEveryAllocationFailing([&](PublicAgent& agent) { buildAndInitialise(agent, valid(type)); },
                             [](PublicAgent& agent) {
                               float values[2 * 48] = {};
                               return CorvalithSetNetInput(agent.handle(), values, 2, 3, 4, 4, "in", 0);
                             });
}

void outOfMemoryInRun(const std::string& type) {
  const tools::ModelLayer layer = valid(type);
  const auto grown = [&](size_t input) {
    Shape shape = inputShape(type, input);
    if (type == "DetectionOutput" && input == 2) return shape;  // the priors are those of every image
    shape.n = 2;
    if (type != "DetectionOutput" && type != "FC") shape.h = shape.w = 5;  // FC follows no other change than the batch
    return shape;
  };
  withEveryAllocationFailing(
      [&](PublicAgent& agent) {
        buildAndInitialise(agent, layer);
        const std::vector<std::string> own{layer.name};
        const std::vector<std::string>& inputs = layer.bottoms.empty() ? own : layer.bottoms;
        for (size_t i = 0; i < inputs.size(); ++i) ASSERT_EQ(agent.feed(inputs[i], grown(i)), 0);
      },
      [](PublicAgent& agent) { return CorvalithExecuteNet(agent.handle()); });
}

Source::Source(Context* context, const std::string& top, const Shape& s)
    : Layer(CORVALITH_FP32, context), block_(s.n, s.c, s.h, s.w, CORVALITH_FP32, context) {
  if (block_.getData() != nullptr) block_.clear();
  topData_[top] = &block_;
}

LayerBench::LayerBench(const tools::ModelLayer& record, bool withWorkers) : record_(record) {
  if (withWorkers) device.deviceInit();
  for (const std::string& bottom : record.bottoms) {
    sources.push_back(std::make_unique<Source>(&context, bottom, inputShape(record.type, sources.size())));
  }
  layer = RegisterFactory::registry().at(record.type)(CORVALITH_FP32, &context);
}

int LayerBench::configure(const tools::ModelLayer& record, int mode, std::ofstream* dump) {
  const std::vector<char> bytes = tools::layerRecord(record);
  return layer->setLayerParam(bytes.data(), static_cast<int>(bytes.size()), mode, dump);
}

int LayerBench::init(size_t bottoms) {
  std::vector<Layer*> producers;
  for (size_t i = 0; i < std::min(bottoms, sources.size()); ++i) producers.push_back(sources[i].get());
  return layer->initForward(producers);
}

void LayerBench::resizeInputs(const Shape& shape) {
  for (const std::unique_ptr<Source>& source : sources) {
    ASSERT_EQ(source->block().reshape(shape), 0);
    source->block().clear();
  }
  if (auto* input = dynamic_cast<BaseDataLayer*>(layer.get())) {
    ASSERT_EQ(input->getInput()->reshape(shape), 0);
    input->getInput()->clear();
  }
}

void breakImpl(Layer& layer) { layer.*LayerMembers::impl() = std::make_unique<BrokenImpl>(CORVALITH_FP32, nullptr); }

NetBench::NetBench(const std::vector<char>& image, bool nb) : model(std::make_shared<Model>()) {
  device.deviceInit();
  model->loadModelDataFromMemory(image.data(), static_cast<int>(image.size()));
  model->setNbModel(nb);
}

void reshapedTooEarly(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  EXPECT_EQ(bench.layer->reshape(), -1);
}

void reshapedWithoutTop(const std::string& type) {
  for (long number = 0;; ++number) {
    LayerBench bench(valid(type));
    ASSERT_EQ(bench.configure(), 0);
    const AllocationFault memory(number, AllocationFault::kNewAndMalloc);
    try {
      bench.init();
    } catch (const std::bad_alloc&) {
    }
    if (!memory.happened() || bench.layer->getTopData("tested") != nullptr) return;
    EXPECT_EQ(bench.layer->reshape(), -1);
  }
}

void emptyInput(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  for (const std::unique_ptr<Source>& source : bench.sources) source->block().reshape(1, 3, 0, 4);
  EXPECT_EQ(bench.init(), -1);
}

void forwardWithBrokenImpl(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  ASSERT_EQ(bench.init(), 0);
  breakImpl(*bench.layer);
  EXPECT_EQ(bench.layer->forward(), -1);
}

void reshapeWithBrokenImpl(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  ASSERT_EQ(bench.init(), 0);
  breakImpl(*bench.layer);
  bench.resizeInputs({2, kInput.c, kInput.h, kInput.w});
  EXPECT_EQ(bench.layer->reshape(), -1);
}

void runWithoutSlots(const std::string& type) {
  LayerBench bench(valid(type), false);
  ASSERT_EQ(bench.configure(), 0);
  ASSERT_EQ(bench.init(), 0);
  EXPECT_EQ(bench.layer->forward(), -1);
}

void dumpToBrokenStream(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  std::ofstream neverOpened;
  EXPECT_EQ(bench.configure(valid(type), LOAD_DUMP, &neverOpened), -1);
}

void dumpTooEarly(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  std::ofstream out(temporaryPath("record"));
  EXPECT_EQ(bench.configure(valid(type), LOAD_DUMP, &out), -1);
}

}  // namespace corvalith::testing
