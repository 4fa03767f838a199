#include "layers/lifecycle.h"

#include <algorithm>
#include <cstring>

#include "core/log.h"

namespace corvalith {
namespace {

constexpr size_t kBasicParamSize = sizeof(LayerBasicParam);

bool isTerminated(const char (&name)[kNameSize]) { return std::memchr(name, 0, kNameSize) != nullptr; }

/// Some types have no text for some failures: then only the status tells.
int failWith(const char* text) { return text != nullptr ? fail(text) : -1; }

bool hasMemory(const Block* block) { return block != nullptr && block->getData() != nullptr; }

}  // namespace

template <class Base>
int LayerLifecycle<Base>::refuseRecord(int size) const {
  logError(messages().basicParam, size, kBasicParamSize);  // most texts take no argument and ignore them
  return -1;
}

template <class Base>
int LayerLifecycle<Base>::refuseInit() const {
  return failWith(messages().implInit);
}

// Every type makes one top.
template <class Base>
bool LayerLifecycle<Base>::basicRecordIsSound() const {
  const LayerBasicParam& basic = this->basicParam_;
  if (basic.topCount != 1 || basic.bottomCount > kMaxNames) return false;
  return isTerminated(basic.name) && isTerminated(basic.tops[0]) &&
         std::all_of(basic.bottoms, basic.bottoms + basic.bottomCount, isTerminated);
}

template <class Base>
int LayerLifecycle<Base>::takeSpecial(RecordReader& reader, int size) {
  const RecordFamily family = traits_.family;
  if (family == RecordFamily::kBasicOnly || family == RecordFamily::kBasicThenRest) return 0;
  if (family == RecordFamily::kSpecialThenRest) {
    return reader.read(special_, specialSize_) ? 0 : refuseRecord(size);
  }
  if (family != RecordFamily::kSpecialRequired && this->basicParam_.hasSpecial == 0) return 0;
  const bool weightsMayFollow = family == RecordFamily::kSpecialOptionalWithWeights;
  const bool sizeFits = weightsMayFollow ? reader.remaining() >= specialSize_ : reader.remaining() == specialSize_;
  if (!sizeFits || this->basicParam_.specialSize != specialSize_ || !reader.read(special_, specialSize_)) {
    return fail(messages().specialParam);
  }
  return 0;
}

template <class Base>
int LayerLifecycle<Base>::setLayerParam(char const* data, int size, int mode, std::ofstream*) {
  if (mode == LOAD_DUMP) return 0;  // the record is copied as it is, and nothing changes under a running implementation
  const RecordFamily family = traits_.family;
  const bool moreMustFollow = family == RecordFamily::kSpecialRequired || family == RecordFamily::kBasicThenRest;
  const int64_t least = static_cast<int64_t>(kBasicParamSize) + (moreMustFollow ? 1 : 0);
  if (data == nullptr || size < least) return refuseRecord(size);
  if (family == RecordFamily::kBasicOnly && size != least) return refuseRecord(size);
  RecordReader reader(data, static_cast<size_t>(size));
  if (!reader.read(this->basicParam_) || !basicRecordIsSound()) return refuseRecord(size);
  if (takeSpecial(reader, size) != 0) return -1;
  return readBody(reader, mode);
}

template <class Base>
int LayerLifecycle<Base>::readBody(RecordReader&, int) {
  return 0;
}

template <class Base>
int LayerLifecycle<Base>::bindBottoms(std::vector<Layer*> const& bottoms) {
  const int count = static_cast<int>(bottoms.size());
  if (count < traits_.minBottoms || count > traits_.maxBottoms || count > this->getBottomCount()) {
    return failWith(messages().bottomCount);
  }
  for (int i = 0; i < count; ++i) {
    Block* block = bottoms[static_cast<size_t>(i)]->getTopData(this->getBottomName(i));
    if (!hasMemory(block)) return failWith(messages().bottomCount);
    this->bottomBlocks_.push_back(block);
  }
  return 0;
}

template <class Base>
int LayerLifecycle<Base>::topShape(Shape& top) {
  top = bottomShape();
  return 0;
}

template <class Base>
int LayerLifecycle<Base>::afterInit() {
  return 0;
}

template <class Base>
bool LayerLifecycle<Base>::worksInPlace() const {
  return traits_.inPlace && this->getBottomCount() > 0 && this->getTopName(0) == this->getBottomName(0);
}

template <class Base>
int LayerLifecycle<Base>::checkedTopShape(Shape& shape, const char* refusal) {
  const int status = topShape(shape);
  if (status == kRefusedAndLogged) return -1;
  if (status != 0 || shape.elements() < (allowsEmptyTop() ? 0 : 1)) return failWith(refusal);
  return 0;
}

template <class Base>
int LayerLifecycle<Base>::makeTop() {
  const std::string name = this->getTopName(0);
  Block* top = this->getTopData(name);  // set already by a layer that hands on its input
  if (top == nullptr) {
    Shape shape;
    if (checkedTopShape(shape, messages().implInit) != 0) return -1;
    if (worksInPlace()) {
      top = this->bottomBlocks_[0];
    } else {
      ownedTop_ = std::make_unique<TopBlock>(shape.n, shape.c, shape.h, shape.w, this->dataType_, this->context_, name);
      top = ownedTop_.get();
      if (!hasMemory(top)) return fail(messages().topCreate != nullptr ? messages().topCreate : "block create fail");
    }
    this->topData_[name] = top;
  }
  this->topBlocks_.push_back(top);
  return 0;
}

template <class Base>
int LayerLifecycle<Base>::initForward(std::vector<Layer*> const& bottoms) {
  if (bindBottoms(bottoms) != 0 || makeTop() != 0) return -1;
  this->impl_ = makeImpl();
  if (this->impl_ == nullptr) return -1;
  if (this->nbModel_) this->impl_->setisFP16Model(true);
  if (this->impl_->init(this->bottomBlocks_, this->topBlocks_, special_, weight_.get(), bias_.get()) != 0) {
    return failWith(messages().implInit);
  }
  rememberShapes();
  if (weight_ != nullptr && !this->impl_->readsWeights()) weight_->release();
  return afterInit();
}

template <class Base>
int LayerLifecycle<Base>::forward() {
  if (this->impl_ == nullptr ||
      this->impl_->forward(this->bottomBlocks_, this->topBlocks_, special_, weight_.get(), bias_.get()) != 0) {
    return failWith(messages().implForward);
  }
  return 0;
}

template <class Base>
bool LayerLifecycle<Base>::implKnowsShapes() const {
  if (implShapes_.size() != this->bottomBlocks_.size() + 1) return false;
  for (size_t i = 0; i < this->bottomBlocks_.size(); ++i) {
    if (implShapes_[i] != bottomShape(i)) return false;
  }
  return implShapes_.back() == this->topBlocks_[0]->shape();
}

template <class Base>
void LayerLifecycle<Base>::rememberShapes() {
  implShapes_.clear();
  for (const Block* block : this->bottomBlocks_) implShapes_.push_back(block->shape());
  implShapes_.push_back(this->topBlocks_[0]->shape());
}

template <class Base>
int LayerLifecycle<Base>::reshape() {
  if (this->bottomBlocks_.empty()) return failWith(messages().reshapeBottomCount);
  if (this->topBlocks_.empty()) return failWith(messages().reshapeTopCount);
  if (!std::all_of(this->bottomBlocks_.begin(), this->bottomBlocks_.end(), hasMemory)) {
    return failWith(messages().reshapeFail);
  }
  Shape shape;
  if (checkedTopShape(shape, messages().reshapeFail) != 0) return -1;
  Block* top = this->topBlocks_[0];
  if ((top->shape() != shape || !hasMemory(top)) && top->reshape(shape) != 0) return failWith(messages().reshapeFail);
  if (implKnowsShapes()) return 0;
  implShapes_.clear();  // until it has succeeded, no shape counts as known
  if (this->impl_->reshape(this->bottomBlocks_, this->topBlocks_, special_, weight_.get(), bias_.get()) != 0) {
    return failWith(messages().implReshape);
  }
  rememberShapes();
  return 0;
}

template class LayerLifecycle<Layer>;
template class LayerLifecycle<BaseDataLayer>;

}  // namespace corvalith
