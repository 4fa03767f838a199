#include "gpu/gpu_impl.h"

#include "core/log.h"

namespace corvalith {

GPUImpl::~GPUImpl() {
  if (context_ == nullptr) logError("static_cast failed!");
}

int GPUImpl::init(Blocks const&, Blocks const&, void*, Block*, Block*) {
  if (context_ == nullptr) return fail("static_cast context failed");
  if (pad_.fetch(gpu(), dataType_) != 0 || convertBlocked2_.fetch(gpu(), dataType_) != 0 ||
      convert2Points_.fetch(gpu(), dataType_) != 0 || convertOptimized_.fetch(gpu(), dataType_) != 0) {
    return fail("set kernel failed");
  }
  return 0;
}

int GPUImpl::dumpWeight(std::ofstream* out, void* bias, int biasBytes) {
  Device* const device = context_ == nullptr ? nullptr : context_->getDevice();
  if (device == nullptr || device->printTopDataRaw(weightSize_, weightBuffer_, out) != 0) {
    return fail("dump weight buffer err");
  }
  if (device->printTopDataRaw(biasBytes, bias, out) != 0) return fail("dump bias buffer err");
  return 0;
}

void GPUImpl::padding(const Block* in, Block* out, int padW, int padH) {
  if (context_ == nullptr) {
    logError("static_cast context failed");
    return;
  }
  pad_.run(Range({in->getBatch(), in->getChannel(), alignTo(out->getHeight() * out->getWidth(), 32)}, {1, 1, 32}),
           buffer(in), buffer(out), padW, padH, in->getWidth(), in->getHeight());
}

const Block* GPUImpl::paddedSource(const Block* in, Block* padded, int padW, int padH) {
  if (padW == 0 && padH == 0) return in;
  padding(in, padded, padW, padH);
  return padded;
}

void GPUImpl::im2colAlign(const Block* in, Block* padded, Block* col, int padW, int padH, int kernelH, int kernelW,
                          int strideH, int strideW, int group) {
  if (context_ == nullptr) {
    logError("static_cast context failed");
    return;
  }
  const Block* const source = paddedSource(in, padded, padW, padH);
  const int outW = (in->getWidth() + 2 * padW - kernelW + strideW) / strideW;
  const int outH = (in->getHeight() + 2 * padH - kernelH + strideH) / strideH;
  const int height = padded->getHeight(), width = padded->getWidth(), channels = padded->getChannel();
  if (group == 1) {
    convertOptimized_.run(Range({in->getBatch(), outH * outW, alignTo(kernelH * in->getChannel(), 16)}, {1, 1, 16}),
                          buffer(source), buffer(col), kernelW, kernelH, strideW, strideH, height, width, channels,
                          col->getHeight(), col->getWidth(), outW, outH);
    return;
  }
  const int depth = kernelH * in->getChannel() * kernelW / group;
  const Range range({in->getBatch(), alignTo(outH * outW, 16), alignTo(depth, 16)}, {1, 16, 16});
  for (int g = 0; g < group; ++g) {
    convertBlocked2_.run(range, buffer(source), buffer(col), kernelW, kernelH, strideW, strideH, height, width,
                         channels / group, col->getHeight() / group, col->getWidth(), g, outW, group, outH);
  }
}

void GPUImpl::im2colAlign1xX(const Block* in, Block* padded, Block* col, int padW, int padH, int kernelH, int kernelW,
                             int strideH, int strideW, int x) {
  if (context_ == nullptr) {
    logError("static_cast context failed");
    return;
  }
  const Block* const source = paddedSource(in, padded, padW, padH);
  const int outW = (in->getWidth() + 2 * padW - kernelW + strideW) / strideW;
  const int outH = (in->getHeight() + 2 * padH - kernelH + strideH) / strideH;
  convert2Points_.run(Range({in->getBatch(), in->getChannel(), alignTo(outH * outW, 16)}, {1, 1, 16}), buffer(source),
                      buffer(col), kernelW, kernelH, strideW, strideH, padded->getHeight(), padded->getWidth(),
                      padded->getChannel(), col->getHeight(), col->getWidth(), outW, outH, x);
}

}  // namespace corvalith
