#include "cpu/conv_gemm.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <limits>

#include "core/log.h"
#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"

namespace corvalith {
namespace {

constexpr int kMaxDimension = std::numeric_limits<int>::max();
static_assert(kMaxBlockElements < kMaxDimension, "a block with a clamped dimension must fail to be made");

/// A block's dimension as a product of non-negative 32-bit factors. One that no block can have becomes kMaxDimension.
int dimension(std::initializer_list<int> factors) {
  int64_t product = 1;
  for (const int factor : factors) product = std::min<int64_t>(product * factor, kMaxDimension);
  return static_cast<int>(product);
}

int padded(int size, int pad) { return static_cast<int>(std::min<int64_t>(size + int64_t{2} * pad, kMaxDimension)); }

Shape padShape(const Shape& in, const ConvParam& p) {
  return {in.n, in.c, padded(in.h, p.pad_h), padded(in.w, p.pad_w)};
}

Shape convertShape(const Shape& in, const Shape& out, const ConvParam& p) {
  return {in.n, 1, out.h, dimension({out.w, p.kernel_h, p.kernel_w, in.c})};
}

bool hasPadding(const ConvParam& p) { return p.pad_h != 0 || p.pad_w != 0; }

std::unique_ptr<Block> makeBlock(const Shape& s, CORVALITH_DATATYPE type, Context* context) {
  return std::make_unique<Block>(s.n, s.c, s.h, s.w, type, context);
}

/// Copies `kernelWidth` values from each of n places `stride` apart to rows `depth` apart.
template <int KERNEL_WIDTH>
void copyTaps(const float* from, size_t stride, float* to, size_t depth, int n, int kernelWidth) {
  const int width = KERNEL_WIDTH > 0 ? KERNEL_WIDTH : kernelWidth;
  for (int i = 0; i < n; ++i, from += stride, to += depth) {
    for (int tap = 0; tap < width; ++tap) to[tap] = from[tap];
  }
}

using CopyTaps = void (*)(const float*, size_t, float*, size_t, int, int);

CopyTaps copyTapsOf(int kernelWidth) {
  switch (kernelWidth) {
    case 1:
      return copyTaps<1>;
    case 3:
      return copyTaps<3>;
    case 5:
      return copyTaps<5>;
    case 7:
      return copyTaps<7>;
    default:
      return copyTaps<0>;
  }
}

}  // namespace

void NoActivation::addBias(float* y, size_t n, float bias) { cpuKernels().addBias(y, n, bias); }

void ReluActivation::addBias(float* y, size_t n, float bias) { cpuKernels().addBiasRelu(y, n, bias); }

template <class Activation>
int ConvCPUGEMM<Activation>::init(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  padBuffer_ = makeBlock(padShape(in, conv), dataType_, context_);
  if (padBuffer_->getData() == nullptr) return fail("ConvCPUGEMMImpl pad buffer create fail");
  convertBuffer_ = makeBlock(convertShape(in, tops[0]->shape(), conv), dataType_, context_);
  if (convertBuffer_->getData() == nullptr) return fail("ConvCPUGEMMImpl convert buffer create fail");
  return hasPadding(conv) ? padBuffer_->clear() : 0;
}

template <class Activation>
int ConvCPUGEMM<Activation>::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  if (padBuffer_->reshape(padShape(in, conv)) != 0 ||
      convertBuffer_->reshape(convertShape(in, tops[0]->shape(), conv)) != 0) {
    return fail("reshape failed");
  }
  return hasPadding(conv) ? padBuffer_->clear() : 0;
}

/// Where to unfold from: the pad buffer or, without padding, the input itself.
template <class Activation>
const float* ConvCPUGEMM<Activation>::padInput(const Block& bottom, const ConvParam& param) {
  const float* x = floats(&bottom);
  if (!hasPadding(param)) return x;
  const Shape in = bottom.shape(), out = padBuffer_->shape();
  const size_t width = static_cast<size_t>(in.w), outWidth = static_cast<size_t>(out.w);
  float* plane = floats(padBuffer_.get());
  for (int i = 0; i < in.n * in.c; ++i, plane += static_cast<size_t>(out.h) * outWidth) {
    float* y = plane + static_cast<size_t>(param.pad_h) * outWidth + static_cast<size_t>(param.pad_w);
    for (int row = 0; row < in.h; ++row, x += width, y += outWidth) std::memcpy(y, x, width * sizeof(float));
  }
  return floats(padBuffer_.get());
}

template <class Activation>
void* ConvCPUGEMM<Activation>::im2colThreadFun(void* record) {
  const Im2colThreadParam& p = *static_cast<const Im2colThreadParam*>(record);
  constexpr int kTile = 16;  // output pixels whose rows are filled together: source lines are read once
  const CopyTaps copy = copyTapsOf(p.kernelWidth);
  const size_t depth = static_cast<size_t>(p.depth), width = static_cast<size_t>(p.paddedWidth);
  const size_t plane = width * static_cast<size_t>(p.paddedHeight), taps = static_cast<size_t>(p.kernelWidth);
  for (int oh = 0; oh < p.outputHeight; ++oh) {
    for (int ow = 0; ow < p.outputWidth; ow += kTile) {
      const int pixels = std::min(kTile, p.outputWidth - ow);
      const float* origin = p.source + static_cast<size_t>(oh) * static_cast<size_t>(p.strideHeight) * width +
                            static_cast<size_t>(ow) * static_cast<size_t>(p.strideWidth);
      float* column =
          p.column + (static_cast<size_t>(oh) * static_cast<size_t>(p.outputWidth) + static_cast<size_t>(ow)) * depth;
      for (int row = p.firstRow; row < p.endRow; ++row) {
        const size_t channel = static_cast<size_t>(row / p.kernelHeight);
        const size_t kernelRow = static_cast<size_t>(row % p.kernelHeight);
        copy(origin + channel * plane + kernelRow * width, static_cast<size_t>(p.strideWidth),
             column + static_cast<size_t>(row) * taps, depth, pixels, p.kernelWidth);
      }
    }
  }
  return nullptr;
}

template <class Activation>
void ConvCPUGEMM<Activation>::im2col(const float* source, const Block& bottom, const Block& top,
                                     const ConvParam& param) {
  const Shape in = padBuffer_->shape(), out = top.shape();
  const int channels = in.c / param.group;
  const int depth = channels * param.kernel_h * param.kernel_w;
  float* column = floats(convertBuffer_.get());
  for (int step = 0; step < bottom.getBatch() * param.group; ++step) {
    runOnSlots(context_, im2colParams_, im2colThreadFun, channels * param.kernel_h,
               [&](Im2colThreadParam& record, int first, int end) {
                 record = {column, source, param.kernel_h, param.kernel_w, param.stride_h, param.stride_w,
                           in.h,   in.w,   depth,          out.h,          out.w,          first,
                           end};
               });
    column += static_cast<size_t>(out.h) * static_cast<size_t>(out.w) * static_cast<size_t>(depth);
    source += static_cast<size_t>(channels) * static_cast<size_t>(in.h) * static_cast<size_t>(in.w);
  }
}

// The depth is cut into chunks of less than 1000: a sum over a deep reduction would lose accuracy.
template <class Activation>
void* ConvCPUGEMM<Activation>::gemmThreadFun(void* record) {
  const GemmThreadParam& p = *static_cast<const GemmThreadParam*>(record);
  const size_t depth = static_cast<size_t>(p.depth), columns = static_cast<size_t>(p.columns);
  const size_t m = static_cast<size_t>(p.mBegin), n = static_cast<size_t>(p.nBegin);
  const size_t chunks = depth / 1000 + 1;
  for (size_t chunk = 0; chunk < chunks; ++chunk) {
    const size_t begin = depth * chunk / chunks, end = depth * (chunk + 1) / chunks;
    cpuKernels().dotProducts(p.a + m * depth + begin, static_cast<size_t>(p.mEnd - p.mBegin), p.b + n * depth + begin,
                             static_cast<size_t>(p.nEnd - p.nBegin), depth, end - begin, p.y + m * columns + n,
                             columns);
  }
  return nullptr;
}

template <class Activation>
void ConvCPUGEMM<Activation>::multiply(const float* weights, const Block& bottom, const Block& top,
                                       const ConvParam& param) {
  const int rows = top.getChannel() / param.group;
  const int columns = top.getHeight() * top.getWidth();
  const int depth = bottom.getChannel() / param.group * param.kernel_h * param.kernel_w;
  const bool splitRows = rows < columns;
  const float* b = floats(convertBuffer_.get());
  float* y = floats(&top);
  for (int image = 0; image < top.getBatch(); ++image) {
    const float* a = weights;
    for (int group = 0; group < param.group; ++group) {
      runOnSlots(context_, gemmParams_, gemmThreadFun, splitRows ? rows : columns,
                 [&](GemmThreadParam& record, int first, int end) {
                   record = {a, b, y, rows, columns, depth, 0, rows, 0, columns};
                   (splitRows ? record.mBegin : record.nBegin) = first;
                   (splitRows ? record.mEnd : record.nEnd) = end;
                 });
      a += static_cast<size_t>(rows) * static_cast<size_t>(depth);
      b += static_cast<size_t>(columns) * static_cast<size_t>(depth);
      y += static_cast<size_t>(rows) * static_cast<size_t>(columns);
    }
  }
}

template <class Activation>
int ConvCPUGEMM<Activation>::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight,
                                     Block* bias) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Block& bottom = *bottoms[0];
  Block& top = *tops[0];
  im2col(padInput(bottom, conv), bottom, top, conv);
  if (top.clear() != 0 || requireSlots(context_) != 0) return -1;
  multiply(floats(weight), bottom, top, conv);

  const size_t pixels = static_cast<size_t>(top.getHeight()) * static_cast<size_t>(top.getWidth());
  float* y = floats(&top);
  for (int image = 0; image < top.getBatch(); ++image) {
    for (int channel = 0; channel < top.getChannel(); ++channel, y += pixels) {
      Activation::addBias(y, pixels, floats(bias)[channel]);
    }
  }
  return 0;
}

template class ConvCPUGEMM<NoActivation>;
template class ConvCPUGEMM<ReluActivation>;

}  // namespace corvalith
