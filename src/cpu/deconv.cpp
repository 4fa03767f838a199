#include "cpu/deconv.h"

#include <algorithm>

#include "core/log.h"
#include "cpu/simd/kernels.h"
#include "cpu/sizes.h"

namespace corvalith {
namespace {

/// Pixels of a plane, up to whole vectors.
int paddedPixels(const Shape& in) {
  const int lanes = static_cast<int>(cpuKernels().lanes);
  return (in.h * in.w + lanes - 1) / lanes * lanes;
}

Shape bottomScratch(const Shape& in) { return {1, 1, in.c, paddedPixels(in)}; }

Shape columnScratch(const Shape& in, const ConvParam& p) {
  return {1, 1, p.num_output * p.kernel_h * p.kernel_w, paddedPixels(in)};  // not more rows than there are weights
}

std::unique_ptr<Block> makeBlock(const Shape& s, CORVALITH_DATATYPE type, Context* context) {
  return std::make_unique<Block>(s.n, s.c, s.h, s.w, type, context);
}

/// The input rows or columns whose output at this place of the kernel is within the output: place `in` goes to
/// in * stride + offset.
struct Range {
  int64_t begin, end, stride, offset;
  Range(int64_t inputs, int64_t outputs, int64_t stride, int64_t offset) : stride(stride), offset(offset) {
    begin = offset >= 0 ? 0 : (-offset + stride - 1) / stride;
    end = outputs > offset ? std::min(inputs, (outputs - 1 - offset) / stride + 1) : 0;
  }
};

/// Adds one row of columns, the plane of what all pixels give at one place of the kernel, to an output plane.
void addColumn(const float* x, int64_t width, const Range& rows, const Range& columns, float* y, int64_t outWidth) {
  if (columns.begin >= columns.end) return;
  const size_t count = static_cast<size_t>(columns.end - columns.begin);
  const size_t stride = static_cast<size_t>(columns.stride);
  for (int64_t row = rows.begin; row < rows.end; ++row) {
    const float* from = x + row * width + columns.begin;
    float* to = y + (row * rows.stride + rows.offset) * outWidth + columns.begin * columns.stride + columns.offset;
    if (stride == 1) {
      cpuKernels().addScaled(from, to, count, 1.0f);
    } else {
      for (size_t i = 0; i < count; ++i) to[i * stride] += from[i];
    }
  }
}

}  // namespace

DeconvCPUImpl::~DeconvCPUImpl() {
  if (weightBuffer_ != nullptr) context_->CorvalithRelease(weightBuffer_);
}

int DeconvCPUImpl::init(Blocks const& bottoms, Blocks const&, void* param, Block* weight, Block*) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  transBottom_ = makeBlock(bottomScratch(in), dataType_, context_);
  if (transBottom_->getData() == nullptr) return fail("DeconvCPUImpl transBottom create fail");
  converTop_ = makeBlock(columnScratch(in, conv), dataType_, context_);
  if (converTop_->getData() == nullptr) return fail("DeconvCPUImpl converTop create fail");
  if (weight == nullptr || weight->getData() == nullptr) return fail("weight get data failed");
  weightBuffer_ = context_->CorvalithMalloc(weight->getSize() + static_cast<int>(kCacheLine), dataType_);
  if (weightBuffer_ == nullptr) return fail("DeconvCPUImpl weightBuffer_ create fail");
  prepareWeights(floats(weight), static_cast<size_t>(conv.group), static_cast<size_t>(in.c / conv.group),
                 static_cast<size_t>(weight->getSize() / in.c));
  return 0;
}

int DeconvCPUImpl::reshape(Blocks const& bottoms, Blocks const&, void* param, Block*, Block*) {
  const Shape in = bottoms[0]->shape();
  if (transBottom_->reshape(bottomScratch(in)) != 0) return fail("DeconvCPUImpl transBottom buffer reshape fail");
  if (converTop_->reshape(columnScratch(in, *static_cast<const ConvParam*>(param))) != 0) {
    return fail("DeconvCPUImpl converTop buffer reshape fail");
  }
  return 0;
}

/// Per group, a channels x kernels matrix becomes a packed one of kernels x channels.
void DeconvCPUImpl::prepareWeights(const float* weights, size_t groups, size_t channels, size_t kernels) {
  const size_t panelRows = cpuKernels().panelRows;
  float* to = static_cast<float*>(weightBuffer_);
  for (size_t group = 0; group < groups; ++group, weights += channels * kernels) {
    for (size_t panel = 0; panel < kernels; panel += panelRows) {
      const size_t rows = std::min(panelRows, kernels - panel);
      for (size_t channel = 0; channel < channels; ++channel, to += rows) {
        std::copy_n(weights + channel * kernels + panel, rows, to);
      }
    }
  }
}

int DeconvCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block* bias) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
  const size_t pixels = static_cast<size_t>(in.h) * static_cast<size_t>(in.w);
  const size_t outPixels = static_cast<size_t>(out.h) * static_cast<size_t>(out.w);
  const size_t pitch = static_cast<size_t>(transBottom_->getWidth());
  const size_t channels = static_cast<size_t>(in.c / conv.group);
  const size_t kernels = static_cast<size_t>(converTop_->getHeight() / conv.group);
  const float* x = floats(bottoms[0]);
  float* y = floats(tops[0]);
  for (int image = 0; image < in.n; ++image) {
    float* row = floats(transBottom_.get());
    for (int channel = 0; channel < in.c; ++channel, x += pixels, row += pitch) {
      std::fill(std::copy_n(x, pixels, row), row + pitch, 0.0f);
    }
    for (size_t group = 0; group < static_cast<size_t>(conv.group); ++group) {
      cpuKernels().packedProduct({static_cast<const float*>(weightBuffer_) + group * channels * kernels, kernels,
                                  floats(transBottom_.get()) + group * channels * pitch, pitch,
                                  cpuKernels().panelColumns, pitch, channels,
                                  floats(converTop_.get()) + group * kernels * pitch, pitch, nullptr, false});
    }
    const float* column = floats(converTop_.get());
    for (int m = 0; m < out.c; ++m, y += outPixels) {
      std::fill_n(y, outPixels, floats(bias)[m]);
      for (int kh = 0; kh < conv.kernel_h; ++kh) {
        const Range rows(in.h, out.h, conv.stride_h, int64_t{kh} - conv.pad_h);
        for (int kw = 0; kw < conv.kernel_w; ++kw, column += pitch) {
          const Range columns(in.w, out.w, conv.stride_w, int64_t{kw} - conv.pad_w);
          addColumn(column, in.w, rows, columns, y, out.w);
        }
      }
    }
  }
  return 0;
}

}  // namespace corvalith
