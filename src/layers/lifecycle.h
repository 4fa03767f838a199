// The life cycle that all layer types share, written once. A type says what is its own through a LayerTraits constant
// and a few hooks; see CONTRIBUTING.md, "How to add a layer".
#pragma once

#include <memory>
#include <type_traits>
#include <vector>

#include "core/record_reader.h"
#include "layers/layer.h"

namespace corvalith {

/// Which records a type's data consists of, and how strictly their sizes are checked.
enum class RecordFamily {
  kBasicOnly,                   // exactly the basic record
  kSpecialRequired,             // basic and special record, nothing more
  kSpecialOptional,             // the special record may be missing: the defaults stay; nothing more
  kSpecialOptionalWithWeights,  // the same, and weights may follow
  kSpecialThenRest,  // the special record is always there, its announced size is not looked at; anything may follow
  kBasicThenRest     // no special record; values follow
};

/// The fixed texts of one layer type. Whole strings, irregular as they are: logs are searched for them. Null where the
/// type has no such text.
struct LayerMessages {
  const char* basicParam;  // may take %d and %zu: the record's size and the basic record's
  const char* specialParam;
  const char* bottomCount;
  const char* topCreate;
  const char* implInit;
  const char* implForward;
  const char* reshapeBottomCount;
  const char* reshapeTopCount;
  const char* reshapeFail;
  const char* implReshape;
};

struct LayerTraits {
  RecordFamily family;
  int minBottoms, maxBottoms;
  bool inPlace;  // the top is the input block when both have one name
  LayerMessages messages;
};

/// Base of every layer type; `Base` is Layer or BaseDataLayer.
///
/// The default flow. setLayerParam: check and copy the basic record and the special record, then readBody. initForward:
/// bindBottoms, topShape, the top block, makeImpl, Impl::init, afterInit; the top starts as zeros. reshape: topShape
/// again; a top whose shape differs is reshaped, and the implementation is told whenever any of its blocks has another
/// shape than when it was told last. forward: Impl::forward.
template <class Base>
class LayerLifecycle : public Base {
 public:
  int setLayerParam(char const* data, int size, int mode, std::ofstream* dump) override;
  int initForward(std::vector<Layer*> const& bottoms) override;
  int forward() override;
  int reshape() override;

 protected:
  /// `special` is the type's special record, a member of the derived class, or null.
  LayerLifecycle(const LayerTraits& traits, CORVALITH_DATATYPE dataType, Context* context, void* special = nullptr,
                 size_t specialSize = 0)
      : Base(dataType, context), traits_(traits), special_(special), specialSize_(specialSize) {}

  /// What a hook returns when it has refused with a text of its own, so that none is to follow.
  static constexpr int kRefusedAndLogged = -2;

  /// Takes what follows the parameter records: weights.
  virtual int readBody(RecordReader& reader, int mode);

  /// Fills bottomBlocks_; by default from `bottoms`, whose number must be within the traits'.
  virtual int bindBottoms(std::vector<Layer*> const& bottoms);

  /// The top's shape for the bottoms' present shapes; by default that of bottom 0. This is also the place to refuse
  /// what the layer cannot compute, at initialisation and at every reshape: return -1 (the layer's line is logged) or
  /// kRefusedAndLogged.
  virtual int topShape(Shape& top);

  /// Whether a top without elements is fine.
  virtual bool allowsEmptyTop() const { return false; }

  /// The implementation for the context's device and the record, or null after logging why there is none.
  virtual std::unique_ptr<Impl> makeImpl() = 0;

  /// Runs once after the implementation's init.
  virtual int afterInit();

  /// One of a pair of implementations, by the context's device.
  template <class CPUImplementation, class GPUImplementation = void>
  std::unique_ptr<Impl> make() {
    if (!this->onGpu()) return std::make_unique<CPUImplementation>(this->dataType_, this->context_);
    if constexpr (!std::is_void_v<GPUImplementation>) {
      return std::make_unique<GPUImplementation>(this->dataType_, this->context_);
    } else {
      refuseInit();  // not on this device
      return nullptr;
    }
  }

  bool worksInPlace() const;
  Shape bottomShape(size_t i = 0) const { return this->bottomBlocks_[i]->shape(); }
  const LayerMessages& messages() const { return traits_.messages; }
  /// Logs the type's text about its basic record.
  int refuseRecord(int size) const;
  /// Logs the type's text about an implementation that cannot be had.
  int refuseInit() const;

  const LayerTraits& traits_;
  void* special_;
  size_t specialSize_;
  std::unique_ptr<Block> weight_, bias_;

 private:
  bool basicRecordIsSound() const;
  int takeSpecial(RecordReader& reader, int size);
  int checkedTopShape(Shape& shape, const char* refusal);
  int makeTop();
  bool implKnowsShapes() const;
  void rememberShapes();

  std::unique_ptr<Block> ownedTop_;  // null for in-place layers and other layers that hand on their input
  std::vector<Shape> implShapes_;    // of bottoms and top, when the implementation was told last; empty: never, or
                                     // its reshape failed
};

extern template class LayerLifecycle<Layer>;
extern template class LayerLifecycle<BaseDataLayer>;

using StandardLayer = LayerLifecycle<Layer>;

}  // namespace corvalith
