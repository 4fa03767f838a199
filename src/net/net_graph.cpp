// Connecting layers by the names of their tops and bottoms, and initialising them.
#include <algorithm>
#include <set>

#include "core/log.h"
#include "net/net.h"

namespace corvalith {

Layer* Net::getLayerFromTopName(const std::string& name) const {
  const auto found = producers_.find(name);
  return found == producers_.end() ? nullptr : layers_[found->second].get();
}

Layer* Net::getLayerFromName(const std::string& name) const {
  for (const std::shared_ptr<Layer>& layer : layers_) {
    if (layer->getName() == name) return layer.get();
  }
  return nullptr;
}

int Net::connectBottoms() {
  if (layers_.empty()) return fail("incorrect layer count");
  for (size_t i = 0; i < layers_.size(); ++i) {
    std::vector<std::string> names;
    std::vector<Layer*> producers;
    for (int j = 0; j < layers_[i]->getBottomCount(); ++j) {
      const std::string name = layers_[i]->getBottomName(j);
      const auto found = producers_.find(name);
      // A layer runs after those before it only: an input that it or a later layer makes would not exist yet.
      if (found == producers_.end() || found->second >= i) return fail("The Structure of Model Error");
      names.push_back(name);
      producers.push_back(layers_[found->second].get());
    }
    bottomNames_.push_back(std::move(names));
    bottomLayers_.push_back(std::move(producers));
  }
  return 0;
}

int Net::connectTops() {
  if (layers_.empty()) return fail("incorrect layer count");
  for (const std::shared_ptr<Layer>& layer : layers_) {
    std::vector<std::string> names;
    std::vector<Layer*> producers;
    for (int j = 0; j < layer->getTopCount(); ++j) {
      const std::string name = layer->getTopName(j);
      Layer* producer = getLayerFromTopName(name);
      if (producer == nullptr) return fail("The Structure of Model Error");
      names.push_back(name);
      producers.push_back(producer);
    }
    topNames_.push_back(std::move(names));
    topLayers_.push_back(std::move(producers));
  }
  return 0;
}

int Net::createGraph() {
  if (connectBottoms() != 0) return fail("Find bottom layer fail");
  if (connectTops() != 0) return fail("Find top layer fail");
  state_ = State::kConnected;
  return 0;
}

int Net::initInferenceNet() {
  if (state_ == State::kInitialised) return 0;
  if (state_ != State::kConnected) return -1;
  state_ = State::kFailed;  // also when an allocation below throws
  const int status = initLayers();
  // Queued work may still read the layers' records and the model image, and needs the buffers that staged them.
  context_->synchronize();
  context_->getDevice()->releaseTempBuf();
  if (status != 0) return -1;
  state_ = State::kInitialised;
  return 0;
}

int Net::initLayers() {
  for (size_t i = 0; i < layers_.size(); ++i) {
    if (layers_[i]->initForward(bottomLayers_[i]) != 0) {
      logError("Layer %zu init fail", i);
      return -1;
    }
  }
  if (nbDataError_) return fail("thread read nb data wrong");
  shareMemory();
  return 0;
}

// A layer may hold its inputs within its top unless a later layer works in place on one of these blocks, or one of them
// belongs to such a layer already.
void Net::shareMemory() {
  std::set<const Block*> shared;
  std::set<const Block*> written;  // by later layers
  for (size_t i = layers_.size(); i-- > 0;) {
    const Block* top = layers_[i]->getTopData(layers_[i]->getTopName(0));
    std::set<const Block*> blocks{top};
    for (size_t j = 0; j < bottomLayers_[i].size(); ++j) {
      blocks.insert(bottomLayers_[i][j]->getTopData(bottomNames_[i][j]));
    }
    const auto isFree = [&](const Block* block) { return shared.count(block) == 0 && written.count(block) == 0; };
    const bool distinct = blocks.size() == bottomLayers_[i].size() + 1;
    if (distinct && std::all_of(blocks.begin(), blocks.end(), isFree) && layers_[i]->holdInputs()) {
      shared.insert(blocks.begin(), blocks.end());
    }
    written.insert(top);
  }
}

}  // namespace corvalith
