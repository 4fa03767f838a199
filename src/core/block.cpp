#include "core/block.h"

#include <cstring>
#include <utility>

#include "core/log.h"
#include "core/memory.h"

namespace corvalith {

Block::Block(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx, Kind kind, const char* failure)
    : batch_(n), channel_(c), height_(h), width_(w), type_(type), kind_(kind), context_(ctx) {
  count_ = getSize();
  if (allocatable()) data_ = context_->CorvalithMalloc(count_, type_);
  if (data_ == nullptr) logError("%s", failure);
}

Block::Block(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx)
    : Block(n, c, h, w, type, ctx, kPlain, "block CorvalithMalloc failed") {}

Block::Block(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx, const float* init)
    : batch_(n), channel_(c), height_(h), width_(w), type_(type), kind_(kPlain), context_(ctx) {
  count_ = getSize();
  if (allocatable()) data_ = context_->CorvalithMalloc(count_, type_, init);
  if (data_ == nullptr) logError("block CorvalithMalloc failed");
}

Block::Block(int bytes, Context* ctx, const void* blob)
    : batch_(1),
      channel_(1),
      height_(1),
      width_(bytes),
      count_(bytes),
      type_(CORVALITH_RAW),
      kind_(kPlain),
      context_(ctx) {
  if (bytes >= 0) data_ = context_->CorvalithMalloc(bytes, CORVALITH_RAW, blob);
  if (data_ == nullptr) logError("block CorvalithMalloc failed");
}

Block::Block(const Shape& s, Context* ctx, View view)
    : batch_(s.n),
      channel_(s.c),
      height_(s.h),
      width_(s.w),
      count_(getSize()),
      type_(ctx->getDataType()),
      kind_(kView),
      context_(ctx) {
  if (allocatable()) data_ = view.values;
  if (data_ == nullptr) logError("block CorvalithMalloc failed");
}

Block::~Block() {
  if (kind_ == kPlain) release();
}

void Block::release() {
  if (isView()) {
    if (data_ != nullptr) discardBytes(data_, static_cast<size_t>(count_) * sizeof(float));
  } else if (data_ != nullptr && kind_ != kGuest) {
    context_->CorvalithRelease(data_);
  }
  if (kind_ == kView || kind_ == kGuest) kind_ = kPlain;  // what comes next is the block's own
  data_ = nullptr;
}

void Block::moveTo(float* place) {
  if (data_ == place) return;
  std::memcpy(place, data_, static_cast<size_t>(getSize()) * sizeof(float));
  release();
  data_ = place;
  kind_ = kGuest;
}

int Block::leave() {
  if (kind_ != kGuest) return 0;
  void* own = context_->CorvalithMalloc(getSize(), type_);
  if (own == nullptr) return fail("CorvalithMalloc fail");
  std::memcpy(own, data_, static_cast<size_t>(getSize()) * sizeof(float));
  data_ = own;
  kind_ = kPlain;
  return 0;
}

void* Block::getData() const { return data_; }

int Block::getSize() const { return wrappingMul(wrappingMul(batch_, channel_), wrappingMul(height_, width_)); }

int Block::getAxisSize(int axis) const {
  if (axis < 0 || axis > 3) {
    logDebug("Error axis for block");
    return -1;
  }
  return shape()[axis];
}

int Block::reshape(int n, int c, int h, int w) {
  const int oldCount = getSize();
  batch_ = n;
  channel_ = c;
  height_ = h;
  width_ = w;
  if (!allocatable()) {
    release();
  } else if (data_ == nullptr || oldCount < getSize()) {  // a null handle is an earlier failure: try again
    release();
    data_ = context_->CorvalithMalloc(getSize(), type_);
  }
  if (data_ == nullptr) return fail("CorvalithMalloc fail");
  return 0;
}

int Block::setData(const float* values) {
  release();
  if (allocatable()) data_ = context_->CorvalithMalloc(getSize(), type_, values);
  if (data_ == nullptr) return fail("Corvalith malloc failed");
  return 0;
}

int Block::clear() { return context_->CorvalithClear(data_, type_, getSize()); }

int Block::getCPUData(float* out) const { return context_->deviceMemToFloat(getData(), type_, out, getSize()); }

int Block::printTopData(std::string fileName) const {
  return context_->printTopData(getSize(), getData(), type_, std::move(fileName));
}

TopBlock::TopBlock(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx, std::string name)
    : Block(n, c, h, w, type, ctx, kTop, "top block CorvalithMalloc failed"), name_(std::move(name)) {}

TopBlock::~TopBlock() { release(); }

void* TopBlock::getData() const { return Block::getData(); }

ImplBlock::ImplBlock(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx)
    : Block(n, c, h, w, type, ctx, kImpl, "impl block CorvalithMalloc failed") {}

ImplBlock::~ImplBlock() { release(); }

void* ImplBlock::getData() const { return Block::getData(); }

}  // namespace corvalith
