// The node of a network, as the network sees it.
#pragma once

#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/block.h"
#include "layers/impl.h"
#include "layers/records.h"

namespace corvalith {

/// How setLayerParam treats the bytes after the parameter records.
enum LoadMode {
  LOAD_FULL = 0,  // a full model: weights are 32-bit floats, copied into blocks at once
  LOAD_NB = 1,    // a half-precision model: weights stay in the model image until readData
  LOAD_DUMP = 2,  // nothing is loaded; types with weights write a half-precision record to the stream
  LOAD_VIEW = 3   // a full model whose image the layer may write to and outlives: large weights stay where they are
};

/// A layer is made by the registry, configured from its record (setLayerParam, then readData for half-precision
/// models), initialised with the producers of its bottoms (initForward), and then reshaped and run by the network any
/// number of times. It owns its output block, its weights and its implementation; input blocks belong to their
/// producers. Operations return 0 (setLayerParam in LOAD_DUMP: bytes written), or -1 after logging.
class Layer {
 public:
  Layer(CORVALITH_DATATYPE dataType, Context* context) : dataType_(dataType), context_(context) {}
  virtual ~Layer() = default;
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  virtual int readData();
  virtual int setLayerParam(char const* data, int size, int mode, std::ofstream* dump) = 0;
  virtual int initForward(std::vector<Layer*> const& bottoms) = 0;
  virtual int forward() = 0;
  virtual int reshape() = 0;

  /// Lets the layer keep its inputs within its output's memory: once it has run, nobody writes to any of them before
  /// their producers run again. Most types have no use for it and return false.
  virtual bool holdInputs() { return false; }

  std::string getName() const { return basicParam_.name; }
  std::string getTopName(int i) const { return basicParam_.tops[i]; }
  std::string getBottomName(int i) const { return basicParam_.bottoms[i]; }
  /// Names of kNameSize bytes and more are cut.
  void setName(const std::string& name);
  void setTopName(int i, const std::string& name);
  void setBottomName(int i, const std::string& name);
  int getTopCount() const { return static_cast<int>(basicParam_.topCount); }
  int getBottomCount() const { return static_cast<int>(basicParam_.bottomCount); }
  /// The output block of that name; null before initForward and for names that the layer does not produce.
  Block* getTopData(const std::string& name) const;
  Impl* getImpl() const { return impl_.get(); }

 protected:
  bool onGpu() const { return context_->getDeviceType() == CORVALITH_GPU; }

  uint32_t implWeightSize_ = 0;   // bytes of the weights as the implementation prepared them
  bool nbModel_ = false;          // the record came from a half-precision model
  char const* nbData_ = nullptr;  // its weights in the model image, until readData
  LayerBasicParam basicParam_{};
  std::map<std::string, Block*> topData_;  // outputs by name, owned or an input's
  CORVALITH_DATATYPE dataType_;
  Context* context_;
  std::vector<Block*> bottomBlocks_;  // in bottom order; not owned
  std::vector<Block*> topBlocks_;
  std::unique_ptr<Impl> impl_;
};

/// A layer that takes the application's input. Its input block always holds 32-bit floats.
class BaseDataLayer : public Layer {
 public:
  using Layer::Layer;
  /// Copies as many floats as the input block has elements (on a GPU: queues the copy).
  virtual int setInput(float* data) = 0;
  /// Null before initForward.
  virtual Block* getInput() = 0;
  virtual int setInputBatch(int batch) = 0;
  /// The size that the model was made for.
  virtual int getDefaultInputSize(int* batch, int* channel, int* height, int* width) = 0;

  /// The size that initForward gives the input block.
  void setDescriptor(const Shape& shape) { descriptor_ = shape; }

 protected:
  std::unique_ptr<Block> inputdata_;
  Shape descriptor_;
};

}  // namespace corvalith
