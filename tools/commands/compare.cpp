#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>

#include "tools/commands/commands.h"
#include "tools/common/difference.h"
#include "tools/common/dumps.h"
#include "tools/common/feeds.h"
#include "tools/common/layer_facts.h"

namespace corvalith::tools {
namespace {

constexpr int kDiffers = 1, kTrouble = 2;  // exit status

/// One side: the values of its tops, from a run of a model or from a folder.
struct Side {
  std::string path;
  SlotOptions slot;
  bool isFolder = false;
  ModelFile model;
  std::vector<NamedTop> tops;  // in the model's order; of a folder sorted by name and without layers
  std::map<std::string, Npy> arrays;
};

/// One top that both sides have.
struct Row {
  NamedTop top;
  Shape shape, referenceShape;
  Difference difference;  // of tops of one shape
  bool good = false;
};

struct Report {
  std::vector<Row> rows;
  size_t onlyA = 0, onlyB = 0;
  bool inLayerOrder = true;
  const Row* firstBad() const {
    const auto bad = std::find_if(rows.begin(), rows.end(), [](const Row& row) { return !row.good; });
    return bad == rows.end() ? nullptr : &*bad;
  }
};

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : "+") + name;
  return text.empty() ? "-" : text;
}

class Comparer {
 public:
  explicit Comparer(const CompareCommand& command) : command_(command) {
    sides_[0].path = command.a;
    sides_[0].slot = command.slotA;
    sides_[1].path = command.b;
    sides_[1].slot = command.slotB;
  }
  int run();

 private:
  bool open(Side& side);
  bool chooseFeeds(size_t index, std::vector<Feed>& feeds);
  bool execute(size_t index);
  Report report() const;

  const CompareCommand& command_;
  Side sides_[2];
  std::map<std::string, Feed> noise_;  // by input layer
  std::string error_;
};

bool Comparer::open(Side& side) {
  std::error_code ignored;
  side.isFolder = std::filesystem::is_directory(side.path, ignored);
  if (!side.isFolder) {
    if (!readModelFile(side.path, side.model, error_)) return false;
    side.tops = namedTops(side.model);
    return true;
  }
  if (!readDumps(side.path, side.arrays, error_)) return false;
  for (const auto& [name, array] : side.arrays) side.tops.push_back({name, {}});
  return true;
}

/// What the command line names; then what a folder on the other side holds for an input layer; then noise.
bool Comparer::chooseFeeds(size_t index, std::vector<Feed>& feeds) {
  const Side& side = sides_[index];
  const Side& other = sides_[1 - index];
  const std::vector<NetInput> inputs = netInputs(side.model);
  if (!readFeeds(command_.inputs, inputs, feeds, error_)) return false;
  for (const NetInput& input : inputs) {
    const auto given =
        std::count_if(feeds.begin(), feeds.end(), [&input](const Feed& feed) { return feed.layer == input.layer; });
    if (given > 1) {
      error_ = "input \"" + input.layer + "\" is given more than once";
      return false;
    }
    if (given == 1) continue;
    if (other.isFolder) {
      const auto isInput = [&input](const ModelLayer& layer) { return layer.name == input.layer; };
      const ModelLayer& layer = *std::find_if(side.model.layers.begin(), side.model.layers.end(), isInput);
      // The top of a "Data" layer is not what the layer was given.
      const auto dump =
          layer.type == "InputData" && !layer.tops.empty() ? other.arrays.find(layer.tops[0]) : other.arrays.end();
      if (dump == other.arrays.end()) {
        error_ = "give input \"" + input.layer + "\" as for the arrays in " + other.path + ": it is not among them";
        return false;
      }
      feeds.push_back({input.layer, blockShape(dump->second.shape), dump->second.data});
      continue;
    }
    Feed& noise = noise_[input.layer];
    if (noise.layer.empty()) {
      noise = {input.layer, input.shape, {}};
      noise.data.resize(static_cast<size_t>(std::max<int64_t>(0, input.shape.elements())));
      std::mt19937 random(command_.seed + static_cast<unsigned>(noise_.size()));
      std::uniform_real_distribution<float> values(-1.0f, 1.0f);
      for (float& value : noise.data) value = values(random);
    } else if (noise.shape != input.shape) {
      error_ = "input \"" + input.layer + "\" is " + shapeText(noise.shape) + " in " + other.path + " and " +
               shapeText(input.shape) + " in " + side.path + ": give it by --input or --image";
      return false;
    }
    feeds.push_back(noise);
  }
  return true;
}

bool Comparer::execute(size_t index) {
  Side& side = sides_[index];
  std::vector<Feed> feeds;
  if (!chooseFeeds(index, feeds)) return false;
  configureEngine(side.slot, command_.engine);
  Engine engine(side.slot);
  if (!runOnce(engine, side.path, feeds, error_)) return false;
  for (const NamedTop& top : side.tops) {
    if (engine.output(top.name, side.arrays[top.name])) continue;
    error_ = "top \"" + top.name + "\" of " + side.path + " cannot be read";
    return false;
  }
  return true;
}

Report Comparer::report() const {
  Report report;
  report.inLayerOrder = !sides_[0].isFolder || !sides_[1].isFolder;
  const Side& ordered = sides_[sides_[0].isFolder ? 1 : 0];
  for (const NamedTop& top : ordered.tops) {
    const auto a = sides_[0].arrays.find(top.name), b = sides_[1].arrays.find(top.name);
    if (a == sides_[0].arrays.end() || b == sides_[1].arrays.end()) continue;
    Row row{top, blockShape(a->second.shape), blockShape(b->second.shape), {}, false};
    if (row.shape == row.referenceShape) {
      row.difference = difference(a->second.data, b->second.data);
      row.good = row.difference.within(command_.tolerance);
    }
    report.rows.push_back(std::move(row));
  }
  report.onlyA = sides_[0].arrays.size() - report.rows.size();
  report.onlyB = sides_[1].arrays.size() - report.rows.size();
  return report;
}

void printTable(const Report& report, const CompareCommand& command) {
  size_t layerWidth = 5, topWidth = 3;
  for (const Row& row : report.rows) {
    layerWidth = std::max(layerWidth, joined(row.top.layers).size());
    topWidth = std::max(topWidth, row.top.name.size());
  }
  const int layer = static_cast<int>(layerWidth), top = static_cast<int>(topWidth);
  std::printf("%-*s  %-*s  %9s  %9s  %9s  %9s  %6s  %6s\n", layer, "layer", top, "top", "count", "max abs", "max rel",
              "cosine", "nan A", "nan B");
  for (const Row& row : report.rows) {
    const Difference& d = row.difference;
    std::printf("%-*s  %-*s  %9lld  ", layer, joined(row.top.layers).c_str(), top, row.top.name.c_str(),
                static_cast<long long>(row.shape.elements()));
    if (row.shape == row.referenceShape) {
      std::printf("%9.3g  %9.3g  %9.6f  %6zu  %6zu%s\n", d.absolute, d.relative, d.cosine, d.nans, d.referenceNans,
                  row.good ? "" : "  BAD");
    } else {
      std::printf("shape %s in A, %s in B  BAD\n", shapeText(row.shape).c_str(), shapeText(row.referenceShape).c_str());
    }
  }
  const auto bad = std::count_if(report.rows.begin(), report.rows.end(), [](const Row& row) { return !row.good; });
  std::printf("%zu top%s compared, %td beyond %g of the largest value in B; %zu only in A, %zu only in B\n",
              report.rows.size(), report.rows.size() == 1 ? "" : "s", static_cast<std::ptrdiff_t>(bad),
              command.tolerance, report.onlyA, report.onlyB);
  const Row* first = report.firstBad();
  if (first == nullptr) return;
  if (report.inLayerOrder) {
    std::printf("first bad layer: %s (top %s)\n", joined(first->top.layers).c_str(), first->top.name.c_str());
  } else {
    std::printf("first bad top by name, as no model tells the order of layers: %s\n", first->top.name.c_str());
  }
}

nlohmann::ordered_json jsonOf(const Row& row) {
  nlohmann::ordered_json json{{"layers", row.top.layers},
                              {"top", row.top.name},
                              {"good", row.good},
                              {"shape_a", {row.shape.n, row.shape.c, row.shape.h, row.shape.w}}};
  const Shape& b = row.referenceShape;
  json["shape_b"] = {b.n, b.c, b.h, b.w};
  if (row.shape != b) return json;
  const Difference& d = row.difference;
  json["max_abs"] = d.absolute;  // infinity becomes null
  json["max_rel"] = d.relative;
  json["cosine"] = d.cosine;
  json["nan_a"] = d.nans;
  json["nan_b"] = d.referenceNans;
  return json;
}

void printJson(const Report& report, const CompareCommand& command) {
  nlohmann::ordered_json root;
  root["a"] = command.a;
  root["b"] = command.b;
  root["tolerance"] = command.tolerance;
  root["only_a"] = report.onlyA;
  root["only_b"] = report.onlyB;
  root["layer_order"] = report.inLayerOrder;
  const Row* first = report.firstBad();
  root["first_bad"] = first == nullptr ? nlohmann::ordered_json() : jsonOf(*first);
  root["tops"] = nlohmann::ordered_json::array();
  for (const Row& row : report.rows) root["tops"].push_back(jsonOf(row));
  std::printf("%s\n", root.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

int Comparer::run() {
  const auto trouble = [this] {
    fail(error_);
    return kTrouble;
  };
  for (Side& side : sides_) {
    if (!open(side)) return trouble();
  }
  for (size_t index = 0; index < 2; ++index) {
    if (!sides_[index].isFolder && !execute(index)) return trouble();
  }
  const Report result = report();
  if (result.rows.empty()) {
    error_ = "the two have no top in common";
    return trouble();
  }
  command_.json ? printJson(result, command_) : printTable(result, command_);
  return result.firstBad() == nullptr ? 0 : kDiffers;
}

}  // namespace

int runCompare(const CompareCommand& command) { return Comparer(command).run(); }

}  // namespace corvalith::tools
