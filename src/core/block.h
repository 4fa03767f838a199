// Four-dimensional tensors in device memory.
#pragma once

#include <string>

#include "core/context.h"
#include "core/types.h"

namespace corvalith {

/// A tensor in batch, channel, height, width order. It owns one memory handle of its context's device (views and guests
/// in another block's memory: none) and touches the memory only through the context, which must outlive it. Failed
/// allocations are logged and leave a null handle: test getData() after construction. A shape with a negative dimension
/// or more than kMaxBlockElements elements is a failed allocation.
class Block {
 public:
  Block(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx);
  /// Filled from n*c*h*w floats, converted to the element type.
  Block(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx, const float* init);
  /// A copy of a byte blob: shape 1, 1, 1, bytes of type CORVALITH_RAW.
  Block(int bytes, Context* ctx, const void* blob);
  /// Floats that somebody else owns and keeps for as long as the block is used. On CPU contexts only.
  struct View {
    float* values;
  };
  Block(const Shape& shape, Context* ctx, View view);
  virtual ~Block();
  virtual void* getData() const;

  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  int getBatch() const { return batch_; }
  int getChannel() const { return channel_; }
  int getHeight() const { return height_; }
  int getWidth() const { return width_; }
  CORVALITH_DATATYPE getType() const { return type_; }
  /// Whether the memory is somebody else's.
  bool isView() const { return kind_ == kView; }
  bool onGpu() const { return context_->getDeviceType() == CORVALITH_GPU; }
  Shape shape() const { return {batch_, channel_, height_, width_}; }
  /// Element count of the current shape, as a 32-bit product.
  int getSize() const;
  /// Axis 0 to 3 is batch, channel, height, width; -1 for any other.
  int getAxisSize(int axis) const;

  /// Gives the block a new shape. Memory is replaced, and its contents lost, only when the element count grows; it
  /// never shrinks. Returns -1 when no memory could be had: the block then has the new shape and a null handle.
  int reshape(int n, int c, int h, int w);
  int reshape(const Shape& s) { return reshape(s.n, s.c, s.h, s.w); }

  /// Replaces the contents by getSize() floats.
  int setData(const float* values);
  int clear();
  /// Gives the memory back, a view's pages too; the shape stays.
  void release();
  /// Makes the block a guest: moves its contents to memory that another block keeps, until leave() or a growing
  /// reshape. On CPU contexts only.
  void moveTo(float* place);
  /// Moves a guest's contents back to memory of its own; does nothing for others. When there is no memory it returns -1
  /// and the block stays.
  int leave();
  /// Copies the whole tensor to getSize() host floats.
  int getCPUData(float* out) const;
  bool isLike(const Block* other) const { return shape() == other->shape(); }
  bool isLike(int n, int c, int h, int w) const { return shape() == Shape{n, c, h, w}; }
  /// Writes the tensor as text, one value a line.
  int printTopData(std::string fileName) const;

 protected:
  enum Kind { kTop = 0, kImpl = 2, kPlain = 3, kView = 4, kGuest = 5 };
  Block(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx, Kind kind, const char* failure);

 private:
  bool allocatable() const { return shape().elements() >= 0; }

  int batch_, channel_, height_, width_;
  int count_;  // of the shape at construction
  CORVALITH_DATATYPE type_;
  Kind kind_;
  void* data_ = nullptr;
  Context* context_;
};

/// The output of a layer, by the name of that output.
class TopBlock : public Block {
 public:
  TopBlock(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx, std::string name);
  ~TopBlock() override;
  void* getData() const override;
  const std::string& getName() const { return name_; }

 private:
  std::string name_;
};

/// Scratch memory of an implementation.
class ImplBlock : public Block {
 public:
  ImplBlock(int n, int c, int h, int w, CORVALITH_DATATYPE type, Context* ctx);
  ~ImplBlock() override;
  void* getData() const override;
};

/// The block's memory as host floats; meaningful on CPU contexts only.
inline float* floats(const Block* block) { return static_cast<float*>(block->getData()); }

}  // namespace corvalith
