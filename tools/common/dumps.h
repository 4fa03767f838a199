// Folders with one .npy file for every top of a network.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/common/model_file.h"
#include "tools/common/npy.h"

namespace corvalith::tools {

/// A top with the layers that write it: the first, and those that then work on it in place.
struct NamedTop {
  std::string name;
  std::vector<std::string> layers;
};

/// All tops of a model in the order of their first layers. Each name stands once.
std::vector<NamedTop> namedTops(const ModelFile& model);

/// FOLDER/TOP.npy, where every byte of the name but letters, digits, '.', '_' and '-' is percent-encoded ("%2F" is /).
std::string dumpPath(const std::string& folder, const std::string& top);

/// Makes a folder unless it is there.
bool makeFolder(const std::string& path, std::string& error);

/// All arrays of a folder by their tops' names. Other files are left alone.
bool readDumps(const std::string& folder, std::map<std::string, Npy>& arrays, std::string& error);

}  // namespace corvalith::tools
