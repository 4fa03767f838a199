// "PriorBox": the default (prior) boxes of a single-shot detector for every cell of a feature map, and their variances.
// They depend on the shapes of the feature map (input 0) and of the image (input 1), not on their values.
#include <algorithm>
#include <cmath>
#include <iterator>

#include "core/log.h"
#include "detection/bbox.h"
#include "gpu/one_kernel_impl.h"
#include "gpu/scratch.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

/// Image size and distance of cells, in pixels.
struct Geometry {
  int image_h, image_w;
  float step_h, step_w;

  Geometry(const PriorBoxParam& p, const Shape& layer, const Shape& image) {
    const bool ownSize = p.image_h != 0 && p.image_w != 0, ownSteps = p.step_h != 0 && p.step_w != 0;
    image_h = ownSize ? p.image_h : image.h;
    image_w = ownSize ? p.image_w : image.w;
    step_h = ownSteps ? p.step_h : static_cast<float>(image_h) / static_cast<float>(layer.h);
    step_w = ownSteps ? p.step_w : static_cast<float>(image_w) / static_cast<float>(layer.w);
  }
};

class PriorBoxCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const PriorBoxParam& param = *static_cast<const PriorBoxParam*>(record);
    float* boxes = floats(tops[0]);
    float* variances = boxes + tops[0]->getHeight();
    if (makeBoxes(param, bottoms[0]->shape(), bottoms[1]->shape(), boxes) != 0) return -1;
    if (param.clip != 0) std::transform(boxes, variances, boxes, clampToUnit);
    for (int i = 0; i < tops[0]->getHeight(); ++i) {
      variances[i] = param.variances[param.variance_count == 1 ? 0 : i % 4];
    }
    return 0;
  }

 private:
  /// Cell by cell, row by row: for each minimum size a square of that size, one of the geometric mean of the minimum
  /// and the maximum size, and boxes of the minimum size's area with the aspect ratios (width : height).
  static int makeBoxes(const PriorBoxParam& p, const Shape& layer, const Shape& image, float* out) {
    const Geometry g(p, layer, image);
    const float imageH = static_cast<float>(g.image_h), imageW = static_cast<float>(g.image_w);
    double ratioRoots[std::size(PriorBoxParam().ratios)];
    for (int i = 1; i < p.ratio_count; ++i) ratioRoots[i] = std::sqrt(static_cast<double>(p.ratios[i]));
    for (int h = 0; h < layer.h; ++h) {
      for (int w = 0; w < layer.w; ++w) {
        const float cx = (static_cast<float>(w) + p.offset) * g.step_w;
        const float cy = (static_cast<float>(h) + p.offset) * g.step_h;
        const auto add = [&](float width, float height) {
          *out++ = (cx - width / 2) / imageW;
          *out++ = (cy - height / 2) / imageH;
          *out++ = (cx + width / 2) / imageW;
          *out++ = (cy + height / 2) / imageH;
        };
        for (int k = 0; k < p.min_size_count; ++k) {
          const float size = p.min_sizes[k];
          add(size, size);
          if (p.max_size_count > 0) {
            if (p.max_size_count != p.min_size_count) return fail("maxSizeSize must be equal to minSizeSize");
            const float side = std::sqrt(size * p.max_sizes[k]);
            add(side, side);
          }
          for (int i = 1; i < p.ratio_count; ++i) {
            add(static_cast<float>(size * ratioRoots[i]), static_cast<float>(size / ratioRoots[i]));
          }
        }
      }
    }
    return 0;
  }
};

/// Unlike on the CPU, another number of maximum than of minimum sizes goes unnoticed: the last one counts again.
class PriorBoxGPUImpl final : public OneKernelImpl<kernels::kPriorBox> {
 public:
  using OneKernelImpl::OneKernelImpl;

  int init(Blocks const& bottoms, Blocks const& tops, void* record, Block* weight, Block* bias) override {
    const PriorBoxParam& p = *static_cast<const PriorBoxParam*>(record);
    if (minSizeBuffer_.allocate(context_, p.min_size_count, dataType_) != 0) {
      return fail("PriorBoxGPUImpl minSizeBuffer_ create fail");
    }
    if (maxSizeBuffer_.allocate(context_, p.max_size_count, dataType_) != 0) {
      return fail("PriorBoxGPUImpl maxSizeBuffer_ create fail");
    }
    if (ratioBuffer_.allocate(context_, p.ratio_count, dataType_) != 0) {
      return fail("PriorBoxGPUImpl ratioBuffer_ create fail");
    }
    if (varsBuffer_.allocate(context_, p.variance_count, dataType_) != 0) {
      return fail("PriorBoxGPUImpl varsBuffer_ create fail");
    }
    if (fill(minSizeBuffer_, p.min_sizes, p.min_size_count) != 0) {
      return fail("PriorBoxGPUImpl minSize data 2 device failed");
    }
    if (fill(ratioBuffer_, p.ratios, p.ratio_count) != 0) return fail("PriorBoxGPUImpl ratios data 2 device failed");
    if (fill(varsBuffer_, p.variances, p.variance_count) != 0) {
      return fail("PriorBoxGPUImpl variance data 2 device failed");
    }
    if (p.max_size_count > 0 && fill(maxSizeBuffer_, p.max_sizes, p.max_size_count) != 0) {
      return fail("PriorBoxGPUImpl maxSize data 2 device failed");
    }
    return OneKernelImpl::init(bottoms, tops, record, weight, bias);
  }

  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const PriorBoxParam& p = *static_cast<const PriorBoxParam*>(record);
    const Shape layer = bottoms[0]->shape();
    const Geometry g(p, layer, bottoms[1]->shape());
    const ClInt status =
        kernel_.run(Range({layer.h, layer.w}, {1, 1}), minSizeBuffer_.get(), maxSizeBuffer_.get(), ratioBuffer_.get(),
                    varsBuffer_.get(), buffer(tops[0]), p.min_size_count, p.max_size_count, p.ratio_count,
                    p.variance_count, p.offset, g.step_w, g.step_h, g.image_w, g.image_h, p.num_priors, p.clip);
    return status == kClSuccess ? 0 : failWith("Error: clEnqueueNDR error, err: %d\n", status);
  }

 private:
  /// The record, which is copied from, lives as long as the layer.
  int fill(const DeviceBuffer& target, const float* values, int count) {
    return context_->floatToDeviceMem(values, target.get(), dataType_, count);
  }

  DeviceBuffer minSizeBuffer_, maxSizeBuffer_, ratioBuffer_, varsBuffer_;
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialThenRest,
    2,
    2,
    false,
    {"Error: Unmatched PriorBox layer's basic parameter %d %zu", nullptr, "PriorBoxLayer bottom count error",
     "PriorBoxLayer top data create fail", "PriorBoxLayer impl init fail", "PriorBoxLayer impl forward fail",
     "PriorBoxLayer bottom count error", nullptr, "PriorBoxLayer reshape fail", nullptr}};

/// Whether the counts are those of arrays, and agree. That there are as many maximum as minimum sizes is for the
/// implementation to say.
bool isSound(const PriorBoxParam& p) {
  const auto within = [](int count, int least, size_t most) {
    return count >= least && count <= static_cast<int>(most);
  };
  if (!within(p.min_size_count, 1, std::size(p.min_sizes)) || !within(p.max_size_count, 0, std::size(p.max_sizes)) ||
      !within(p.ratio_count, 1, std::size(p.ratios)) || (p.variance_count != 1 && p.variance_count != 4)) {
    return false;
  }
  return p.num_priors == p.min_size_count * ((p.max_size_count > 0 ? 1 : 0) + p.ratio_count);
}

}  // namespace

class PriorBoxLayer final : public StandardLayer {
 public:
  PriorBoxLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int topShape(Shape& top) override {
    if (!isSound(param_)) return -1;
    const Shape layer = bottomShape(0);
    // Negative, and so refused, where it is more than a tensor can hold.
    const int64_t values = Shape{layer.h, layer.w, param_.num_priors, 4}.elements();
    top = {1, 2, static_cast<int>(values), 1};
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<PriorBoxCPUImpl, PriorBoxGPUImpl>(); }

 private:
  PriorBoxParam param_;
};

CORVALITH_REGISTER_LAYER("PriorBox", PriorBoxLayer)

}  // namespace corvalith
