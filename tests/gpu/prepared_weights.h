// Half-precision records of layers with weights.
#pragma once

#include <cstring>
#include <fstream>
#include <iterator>

#include "layers/registry.h"
#include "layers/weighted_layer.h"
#include "tests/support/gpu_slot.h"
#include "tests/support/layer_case.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace corvalith::testing {

/// Writes a running layer's half-precision record, and expects the same bits from a layer made from it on the same
/// input. One with too few bytes is refused with `line`.
inline void expectSameFromPreparedWeights(const LayerCase& c, const std::string& line, const char* gpu = kPlainGpu) {
  SCOPED_TRACE(c.name);
  const TempDir dir;
  GpuNet net(networkOf(c), CORVALITH_FP16, gpu);
  ASSERT_EQ(net.status(), 0);
  const std::vector<Tensor> inputs = inputsOf(c, c.sizes[0]);
  ASSERT_TRUE(feedAndRun(net, inputs));
  Layer& full = *net.net.getLayerFromName("tested");
  const std::vector<char> record = tools::layerRecord(networkOf(c)[1]);
  std::ofstream dump(dir.file("record"), std::ios::binary);
  const int written = full.setLayerParam(record.data(), static_cast<int>(record.size()), LOAD_DUMP, &dump);
  dump.close();
  std::ifstream file(dir.file("record"), std::ios::binary);
  std::vector<char> prepared((std::istreambuf_iterator<char>(file)), {});
  ASSERT_EQ(written, static_cast<int>(prepared.size()));

  const auto load = [&](int missing) {
    auto layer = RegisterFactory::registry()[c.layer.type](CORVALITH_FP16, &net.context);
    LayerBasicParam basic;
    std::memcpy(&basic, prepared.data(), sizeof basic);
    basic.weightSize -= missing;
    std::vector<char> image = prepared;
    std::memcpy(image.data(), &basic, sizeof basic);
    EXPECT_EQ(layer->setLayerParam(image.data(), static_cast<int>(image.size()), LOAD_NB, nullptr), 0);
    EXPECT_EQ(layer->readData(), 0);
    net.bench.device()->synchronize();
    return layer;
  };
  const auto layer = load(0);
  const std::vector<Layer*> producer = {net.net.getLayerFromName("in0")};
  ASSERT_EQ(layer->initForward(producer), 0);
  for (int run = 0; run < 2; ++run) {
    ASSERT_EQ(layer->forward(), 0);
    Tensor got = net.output("out");
    ASSERT_EQ(layer->getTopData("out")->getCPUData(got.values.data()), 0);
    EXPECT_TRUE(sameBits(got, net.output("out")));
  }
  LogCapture log;
  EXPECT_EQ(load(2)->initForward(producer), -1) << "too few bytes";
  EXPECT_EQ(log.take(), std::vector<std::string>{line});
}

}  // namespace corvalith::testing
