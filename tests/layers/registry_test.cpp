#include "layers/registry.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/layers/reference.h"

namespace corvalith::testing {
namespace {

TEST(Registry, HoldsExactlyTheseTypes) {
  const std::set<std::string> want = {
      "BatchNorm", "Concat",  "Conv",    "Crop",    "Data",    "Deconv",    "DetectionOutput", "Dropout", "Eltwise",
      "FC",        "LRN",     "Flatten", "Permute", "Pooling", "InputData", "Power",           "PReLU",   "PriorBox",
      "ReLU",      "Reshape", "Scale",   "Softmax", "Tanh"};
  std::set<std::string> got;
  for (const auto& entry : RegisterFactory::registry()) got.insert(entry.first);
  EXPECT_EQ(got, want);
  EXPECT_EQ(want.size(), 23u);
}

TEST(Registry, NamesAreCaseSensitive) {
  for (const char* name : {"Relu", "relu", "RELU", "PRelu", "conv", "Fc", "Lrn", "Deconvolution", "ReLU ", ""}) {
    EXPECT_EQ(RegisterFactory::registry().count(name), 0u) << name;
  }
}

TEST(Registry, EveryCreatorMakesALayerOfItsOwn) {
  CPUDevice device;
  CPUContext context(&device, CORVALITH_FP32);
  for (const auto& [name, create] : RegisterFactory::registry()) {
    const std::shared_ptr<Layer> one = create(CORVALITH_FP32, &context), other = create(CORVALITH_FP32, &context);
    ASSERT_NE(one, nullptr) << name;
    EXPECT_NE(one, other) << name;
    EXPECT_EQ(one->getTopData(""), nullptr) << name;
    EXPECT_EQ(one->getImpl(), nullptr) << name;
    const bool takesInput = dynamic_cast<BaseDataLayer*>(one.get()) != nullptr;
    EXPECT_EQ(takesInput, name == "InputData" || name == "Data") << name;
  }
}

TEST(Registry, APriorBoxLayerWithoutBoxesIsRefused) {
  LayerCase prior{"no priors", layer("PriorBox", "", {}, PriorBoxParam{}), {{{1, 3, 4, 4}, {1, 3, 32, 32}}}};
  expectInitRefused(prior, "E/PriorBoxLayer impl init fail");
  prior.sizes[0].pop_back();
  expectInitRefused(prior, "E/PriorBoxLayer bottom count error");
}

}  // namespace
}  // namespace corvalith::testing
