// Files and models that must be refused, through the public functions: every call returns -1, the lock is free, and the
// same agent takes a good model afterwards where it holds none.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/log_capture.h"
#include "tests/support/public_agent.h"
#include "tests/support/sample_models.h"

namespace corvalith {
namespace {

using namespace corvalith::testing;
using tools::ModelLayer;

class HostileTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(lockIsFree()); }

  LogCapture log_;
  const TempDir dir_;
  const std::string good_ = dir_.write("good.cvm", tools::modelBytes("good", everyTypeModel()));
};

TEST_F(HostileTest, FilesThatAreNoModels) {
  const std::vector<char> model = tools::modelBytes("good", everyTypeModel());
  ASSERT_EQ(mkfifo(dir_.file("pipe").c_str(), 0600), 0);
  dir_.write("huge", {1});
  const bool sparse = truncate(dir_.file("huge").c_str(), (off_t{1} << 32) + 104) == 0;
  dir_.write("empty", {});
  dir_.write("short", {1, 0, 0, 0});
  dir_.write("descriptor", std::vector<char>(model.begin(), model.begin() + sizeof(NetDescriptor)));
  dir_.write("mark", std::vector<char>(4096, '\xff'));  // what a half-precision dump that failed begins with
  dir_.write("text", std::vector<char>(100000, '%'));
  PublicAgent agent;
  alarm(30);  // a pipe that was opened would never end
  for (const char* name : {"missing", "", "pipe", "empty", "short", "descriptor", "mark", "text", "huge"}) {
    if (std::string(name) == "huge" && !sparse) continue;
    EXPECT_EQ(agent.build(dir_.file(name)), -1) << name;
    EXPECT_EQ(log_.lines().back(), "E/task assign error") << name;
    EXPECT_TRUE(lockIsFree()) << name;
  }
  for (const char* path : {"/dev/null", "/dev/zero", "", "\n%s%n"}) EXPECT_EQ(agent.build(path), -1) << path;
  EXPECT_EQ(agent.build(dir_.file(std::string(5000, 'a'))), -1);
  alarm(0);
  EXPECT_EQ(agent.build(good_), 0);
  EXPECT_EQ(agent.initialize(), 0);
  EXPECT_EQ(agent.run(), 0);
}

enum class Refused { kBuild, kInitialize };

struct HostileModel {
  const char* name;
  Refused by;
  std::vector<ModelLayer> layers;
};

template <class Record>
ModelLayer small(const char* type, std::vector<std::string> bottoms, const Record& record, size_t weights = 0,
                 size_t biases = 0) {
  ModelLayer made = layer(type, "tested", std::move(bottoms), record);
  made.weights.resize(weights);
  made.biases.resize(biases);
  return made;
}

ConvParam conv(int outputs, int kernel, int stride, int pad, int group) {
  ConvParam p;
  p.num_output = outputs;
  p.kernel_h = p.kernel_w = kernel;
  p.stride_h = p.stride_w = stride;
  p.pad_h = p.pad_w = pad;
  p.group = group;
  return p;
}

TEST_F(HostileTest, ModelsThatCannotBe) {
  constexpr int kHuge = 2147483647;
  const ModelLayer in = inputLayer("data", {1, 4, 6, 6}), in2 = inputLayer("in2", {1, 4, 5, 6});
  const ModelLayer relu = layer("ReLU", "relu", {"data"});
  const auto with = [](ModelLayer made, auto change) {
    change(made);
    return made;
  };
  const auto cut = [](ModelLayer made, size_t bytes) {
    made.special.resize(bytes);
    return made;
  };
  const HostileModel models[] = {
      {"its own input", Refused::kBuild, {in, layer("ReLU", "loop", {"loop"})}},
      {"an input made later", Refused::kBuild, {relu, in}},
      {"an input nobody makes", Refused::kBuild, {in, layer("ReLU", "relu", {"Data"})}},
      {"no top", Refused::kBuild, {in, with(relu, [](ModelLayer& l) { l.tops = {}; })}},
      {"two tops",
       Refused::kBuild,
       {in, with(relu,
                 [](ModelLayer& l) {
                   l.tops = {"a", "b"};
                 })}},
      {"eleven inputs",
       Refused::kBuild,
       {in, with(small("Concat", {}, ConcatParam{1}), [](ModelLayer& l) { l.bottoms.assign(11, "data"); })}},
      {"unknown type", Refused::kBuild, {in, with(relu, [](ModelLayer& l) { l.type = "relu"; })}},
      {"short Crop", Refused::kBuild, {in, in2, cut(small("Crop", {"data", "in2"}, CropParam{2, {}, 0, 0}), 19)}},
      {"short Permute", Refused::kBuild, {in, cut(small("Permute", {"data"}, PermuteParam{}), 19)}},
      {"short Softmax", Refused::kBuild, {in, cut(small("Softmax", {"data"}, SoftmaxParam{1}), 3)}},
      {"short PriorBox", Refused::kBuild, {in, in2, cut(small("PriorBox", {"data", "in2"}, PriorBoxParam{}), 223)}},
      {"short Conv", Refused::kBuild, {in, cut(small("Conv", {"data"}, conv(1, 1, 1, 0, 1)), 243)}},
      {"short FC", Refused::kBuild, {in, cut(small("FC", {"data"}, FCParam{1}), 3)}},
      {"an input layer with an input",
       Refused::kInitialize,
       {in, with(inputLayer("tested", {1, 1, 1, 1}), [](ModelLayer& l) { l.bottoms = {"data"}; })}},
      {"an empty input", Refused::kInitialize, {inputLayer("data", {1, 0, 6, 6}), relu}},
      {"a negative input", Refused::kInitialize, {inputLayer("data", {-1, -4, 6, 6}), relu}},
      {"an input that wraps to nothing", Refused::kInitialize, {inputLayer("data", {65536, 65536, 1, 1}), relu}},
      {"an input that wraps to little", Refused::kInitialize, {inputLayer("data", {3, 1431655766, 1, 1}), relu}},
      {"an input above the limit", Refused::kInitialize, {inputLayer("data", {1, 1, 1 << 14, (1 << 14) + 1}), relu}},
      {"no stride", Refused::kInitialize, {in, small("Conv", {"data"}, conv(1, 1, 0, 0, 1), 4, 1)}},
      {"a negative stride", Refused::kInitialize, {in, small("Conv", {"data"}, conv(1, 1, -1, 0, 1), 4, 1)}},
      {"no group", Refused::kInitialize, {in, small("Conv", {"data"}, conv(1, 1, 1, 0, 0), 4, 1)}},
      {"groups of unequal size", Refused::kInitialize, {in, small("Conv", {"data"}, conv(3, 1, 1, 0, 3), 4, 3)}},
      {"a kernel beyond the input", Refused::kInitialize, {in, small("Conv", {"data"}, conv(1, 7, 1, 0, 1), 196, 1)}},
      {"padding without bounds", Refused::kInitialize, {in, small("Conv", {"data"}, conv(1, 1, 1, kHuge, 1), 4, 1)}},
      {"too few weights", Refused::kInitialize, {in, small("Conv", {"data"}, conv(1, 1, 1, 0, 1), 3, 1)}},
      {"too few biases", Refused::kInitialize, {in, small("Conv", {"data"}, conv(2, 1, 1, 0, 1), 8, 1)}},
      {"outputs without weights", Refused::kInitialize, {in, small("FC", {"data"}, FCParam{kHuge}, 144, 1)}},
      {"no pooling stride", Refused::kInitialize, {in, small("Pooling", {"data"}, PoolingParam{0, 2, 0, 0, 0})}},
      {"endless pooling", Refused::kInitialize, {in, small("Pooling", {"data"}, PoolingParam{1, 1, kHuge, 1, 1})}},
      {"an LRN window of no size", Refused::kInitialize, {in, small("LRN", {"data"}, LRNParam{1, 1, 0, 1})}},
      {"disagreeing sums", Refused::kInitialize, {in, in2, small("Eltwise", {"data", "in2"}, EltwiseParam{})}},
      {"disagreeing joins", Refused::kInitialize, {in, in2, small("Concat", {"data", "in2"}, ConcatParam{1})}},
      {"a crop beyond its input",
       Refused::kInitialize,
       {in, in2, small("Crop", {"data", "in2"}, CropParam{2, {}, 2, 0})}},
      {"a crop whose offset wraps",
       Refused::kInitialize,
       {in, in2, small("Crop", {"data", "in2"}, CropParam{2, {}, 0xfffffffeu, 0})}},
      {"an axis twice", Refused::kInitialize, {in, small("Permute", {"data"}, PermuteParam{4, {0, 1, 1, 3}})}},
      {"an axis beyond four", Refused::kInitialize, {in, small("Permute", {"data"}, PermuteParam{4, {0, 1, 2, 4}})}},
      {"a reshape that makes values",
       Refused::kInitialize,
       {in, small("Reshape", {"data"}, ReshapeParam{{1, 145, 1, 1}, 0, -1})}},
      {"a reshape that wraps",
       Refused::kInitialize,
       {in, small("Reshape", {"data"}, ReshapeParam{{65536, 65536, 1, 1}, 0, -1})}},
      {"a flattened range that ends before it begins",
       Refused::kInitialize,
       {in, small("Flatten", {"data"}, FlattenParam{3, 0})}},
      {"scales for other channels", Refused::kInitialize, {in, small("Scale", {"data"}, ScaleParam{}, 3, 3)}},
  };
  for (const HostileModel& model : models) {
    SCOPED_TRACE(model.name);
    PublicAgent agent;
    const int built = agent.build(dir_.write("model.cvm", tools::modelBytes("hostile", model.layers)));
    EXPECT_EQ(built, model.by == Refused::kBuild ? -1 : 0);
    const bool heldNone = built != 0 && log_.lines().back() == "E/task assign error";
    if (!heldNone) {
      EXPECT_EQ(agent.initialize(), -1);
      EXPECT_EQ(agent.run(), -1);
      EXPECT_EQ(log_.lines().back(), "E/inference failed");
    }
    EXPECT_EQ(agent.build(good_), heldNone ? 0 : -1);
    EXPECT_EQ(agent.initialize(), heldNone ? 0 : -1);
    EXPECT_EQ(agent.run(), heldNone ? 0 : -1);
    EXPECT_TRUE(lockIsFree());
  }
}

// Outputs made for a few values only are not asked for more: the count must be the true one.
TEST_F(HostileTest, OutputsAreNeverLargerThanTheCallerSays) {
  PublicAgent agent;
  ASSERT_EQ(agent.build(good_), 0);
  ASSERT_EQ(agent.initialize(), 0);
  float out[5] = {7, 7, 7, 7, 7};
  for (const int count : {-2147483647 - 1, -1, 0, 1, 4, 6, 2147483647}) {
    EXPECT_EQ(CorvalithGetNetOutput(agent.handle(), out, count, 0), -1) << count;
    EXPECT_EQ(CorvalithGetLayerOutput(agent.handle(), out, count, "fc", 0), -1) << count;
  }
  EXPECT_EQ(out[0], 7);
  EXPECT_EQ(CorvalithGetNetOutput(agent.handle(), out, 5, 0), 0);
  EXPECT_EQ(out[4], 0);  // nothing has run yet
}

// A run that a layer refuses leaves the network as it was: the next fitting input runs.
TEST_F(HostileTest, InputsThatALayerRefuses) {
  PublicAgent agent;
  ASSERT_EQ(agent.build(good_), 0);
  ASSERT_EQ(agent.initialize(), 0);
  const Tensor data = noise({1, 3, 6, 6}, 1), image = noise({1, 3, 8, 9}, 2);
  const auto run = [&](const Tensor& first, const Tensor& second) {
    EXPECT_EQ(agent.setInput("data", first), 0);
    EXPECT_EQ(agent.setInput("image", second), 0);
    return agent.run();
  };
  ASSERT_EQ(run(data, image), 0);
  const std::vector<float> expected = agent.netOutput().values;
  const auto refuses = [&](const Tensor& first, const Tensor& second) {
    EXPECT_EQ(run(first, second), -1);
    EXPECT_EQ(log_.lines().back(), "E/inference failed");
    EXPECT_EQ(run(data, image), 0);
    EXPECT_EQ(agent.netOutput().values, expected);
  };
  for (const Shape& s : {Shape{1, 4, 6, 6}, {1, 1, 6, 6}, {2, 3, 6, 6}, {1, 3, 1, 1}, {1, 3, 6, 7}, {1, 1, 1, 65536}}) {
    refuses(noise(s, 3), image);
  }
  for (const Shape& s : {Shape{1, 3, 5, 9}, {1, 4, 8, 9}, {2, 3, 8, 9}}) refuses(data, noise(s, 3));
  EXPECT_EQ(run(noise({2, 3, 6, 6}, 1), noise({2, 3, 8, 9}, 1)), 0);
}

}  // namespace
}  // namespace corvalith
