// Caffe-style text of a model file, for graph viewers.
#pragma once

#include <string>

#include "tools/common/model_file.h"

namespace corvalith::tools {

/// Structure and parameters, without weights. A ReLU that a convolution does stands as a layer of its own.
std::string prototxt(const ModelFile& model);

}  // namespace corvalith::tools
