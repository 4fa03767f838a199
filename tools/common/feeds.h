// What a network's input layers are given, from the files that the command line names.
#pragma once

#include <string>
#include <vector>

#include "tools/common/engine.h"
#include "tools/common/image.h"

namespace corvalith::tools {

/// Files for input layers: "NAME=file", or "file" where the model has one input only.
struct InputOptions {
  std::vector<std::string> arrays;    // .npy
  std::vector<std::string> pictures;  // PNG or JPEG
  ImageOptions pixels;
};

/// What one input layer is given.
struct Feed {
  std::string layer;
  Shape shape;
  std::vector<float> data;
};

/// Reads the files; pictures are resized to their layer's size. Returns false with the reason in `error`. Not every
/// input need be among the feeds, and one may be there twice.
bool readFeeds(const InputOptions& options, const std::vector<NetInput>& inputs, std::vector<Feed>& feeds,
               std::string& error);

/// "NAME=file" taken apart; without a name `standard`, which is empty where a name is needed. A name may hold '='.
bool parseBinding(const std::string& text, const std::string& standard, std::string& name, std::string& file);

/// The model with these inputs, loaded, run once; takes the inputs' values. Returns false with the reason in `error`.
bool runOnce(Engine& engine, const std::string& model, std::vector<Feed>& feeds, std::string& error);

}  // namespace corvalith::tools
