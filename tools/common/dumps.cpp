#include "tools/common/dumps.h"

#include <algorithm>
#include <filesystem>
#include <string_view>

namespace corvalith::tools {
namespace {

namespace fs = std::filesystem;

constexpr char kSuffix[] = ".npy";
constexpr std::string_view kDigits = "0123456789ABCDEF";
constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";

std::string encoded(const std::string& name) {
  std::string text;
  for (const char c : name) {
    if (kPlain.find(c) != std::string_view::npos) {
      text += c;
    } else {
      const unsigned byte = static_cast<unsigned char>(c);
      text += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return text;
}

/// The reverse; a '%' that starts no code stands for itself.
std::string decoded(const std::string& text) {
  std::string name;
  for (size_t i = 0; i < text.size(); ++i) {
    const size_t high = i + 2 < text.size() ? kDigits.find(text[i + 1]) : std::string_view::npos;
    const size_t low = i + 2 < text.size() ? kDigits.find(text[i + 2]) : std::string_view::npos;
    if (text[i] == '%' && high != std::string_view::npos && low != std::string_view::npos) {
      name += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      name += text[i];
    }
  }
  return name;
}

}  // namespace

std::vector<NamedTop> namedTops(const ModelFile& model) {
  std::vector<NamedTop> tops;
  for (const ModelLayer& layer : model.layers) {
    for (const std::string& name : layer.tops) {
      const auto found =
          std::find_if(tops.begin(), tops.end(), [&name](const NamedTop& top) { return top.name == name; });
      if (found == tops.end()) {
        tops.push_back({name, {layer.name}});
      } else if (std::count(layer.bottoms.begin(), layer.bottoms.end(), name) > 0) {
        found->layers.push_back(layer.name);
      }
    }
  }
  return tops;
}

std::string dumpPath(const std::string& folder, const std::string& top) {
  return (fs::path(folder) / (encoded(top) + kSuffix)).string();
}

bool makeFolder(const std::string& path, std::string& error) {
  std::error_code code;
  fs::create_directories(path, code);
  if (!code && fs::is_directory(path, code)) return true;
  error = "cannot make the folder " + path + ": " + (code ? code.message() : "it is a file");
  return false;
}

bool readDumps(const std::string& folder, std::map<std::string, Npy>& arrays, std::string& error) {
  std::error_code code;
  for (fs::directory_iterator entry(folder, code), end; !code && entry != end; entry.increment(code)) {
    const fs::path& path = entry->path();
    if (path.extension() != kSuffix) continue;
    if (!readNpy(path.string(), arrays[decoded(path.stem().string())], error)) return false;
  }
  if (!code) return true;
  error = "cannot read the folder " + folder + ": " + code.message();
  return false;
}

}  // namespace corvalith::tools
