// Deconvolution on the GPU: which class computes it, and what it launches.
#include "gpu/deconv.h"

#include <typeinfo>

#include "tests/gpu/launches.h"
#include "tests/layers/conv_cases.h"

namespace corvalith::testing {
namespace {

LayerCase deconvCase(int channels, int outputs, const Kernel& k, int group, const Shape& in) {
  LayerCase c = convCase("deconvolution", channels, outputs, k, group, {{in}});
  c.layer.type = "Deconv";
  return c;
}

LayerCase manyRows() { return deconvCase(6, 4, {3, 3, 2, 2, 1, 1}, 2, {2, 6, 3, 3}); }
LayerCase manyPixels() { return deconvCase(6, 2, {2, 2, 2, 2}, 2, {1, 6, 5, 7}); }

class DeconvGpu : public RigTest {
 protected:
  static void expectRun(const LayerCase& c, const std::type_info& implementation, const std::string& weights,
                        const Lines& launches) {
    GpuNet net(networkOf(c), CORVALITH_FP16);
    ASSERT_EQ(net.status(), 0);
    const Lines atInit = plainLaunches();
    EXPECT_EQ(std::count(atInit.begin(), atInit.end(), weights), 1) << weights;
    const Impl& impl = *net.net.getLayerFromName("tested")->getImpl();
    EXPECT_EQ(typeid(impl), implementation);
    const std::vector<Tensor> inputs = inputsOf(c, c.sizes[0]);
    ASSERT_TRUE(feedAndRun(net, inputs));
    rig::reset();
    ASSERT_EQ(net.run(), 0);
    EXPECT_EQ(plainLaunches(), launches);
    net.output("out");
  }
};

TEST_F(DeconvGpu, MoreRowsThanPixels) {
  expectRun(manyRows(), typeid(DeconvGPUImpl), "matrixTrans {2,18,3}/{2,18,3} 8 0 2",
            {"matrixTrans {2,9,3}/{2,9,3} 8 0 2", "convBackGemmRXR {2,4,32}/{1,4,32} 18 8 9 0 2",
             "matrixTrans {2,9,3}/{2,9,3} 8 1 2", "convBackGemmRXR {2,4,32}/{1,4,32} 18 8 9 1 2",
             "convertBottomDiff2 {8,8,32}/{1,4,32} 5 5 4 3 3 1 1 2 2 3 3"});
}

TEST_F(DeconvGpu, AsManyPixelsAsRows) {
  expectRun(manyPixels(), typeid(DeconvGPU1x8Impl), "deconv_8x1_matrixTrans {2,4,3}/{2,4,3} 8 0 2",
            {"deconv_8x1_matrixTrans {2,35,3}/{1,35,3} 8 0 2", "deconvGemm_1x8 {2,4,16}/{1,4,16} 4 8 35 0 2",
             "col2img_1x8 {2,12,32}/{1,4,32} 10 14 2 2 2 0 0 2 2 5 7"});
}

}  // namespace
}  // namespace corvalith::testing
