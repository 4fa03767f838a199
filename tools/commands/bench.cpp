#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <numeric>
#include <random>

#include "core/profile.h"
#include "tools/commands/commands.h"
#include "tools/common/engine.h"
#include "tools/common/half_model.h"
#include "tools/common/progress.h"

namespace corvalith::tools {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Timing {
  std::string name;
  double init = 0, first = 0;
  std::vector<double> runs;  // sorted
  std::vector<profile::LayerTime> layers;

  double average() const { return std::accumulate(runs.begin(), runs.end(), 0.0) / static_cast<double>(runs.size()); }
  /// The smallest time that at least this share of the runs does not exceed; between two where it falls on both.
  double quantile(double share) const {
    const double place = share * static_cast<double>(runs.size() - 1);
    const size_t below = static_cast<size_t>(place), above = std::min(below + 1, runs.size() - 1);
    return runs[below] + (runs[above] - runs[below]) * (place - static_cast<double>(below));
  }
};

/// Measures one model. Returns an empty string, or what failed.
std::string measure(const std::string& path, const BenchCommand& command, Timing& timing) {
  ModelFile model;
  std::string error;
  if (!readModelFile(path, model, error) || !checkHalfModel(path, command.slot, error)) return error;
  timing.name = path.substr(path.rfind('/') + 1);

  std::mt19937 random(command.seed);
  std::uniform_real_distribution<float> values(-1.0f, 1.0f);
  const auto start = Clock::now();
  Engine engine(command.slot);
  if (command.profile) profile::install();  // for the queue, which is made when the devices are found
  const bool loaded = engine.load(path, error);
  profile::uninstall();
  if (!loaded) return error;
  if (!engine.initialize()) return "the engine does not initialise " + path;
  timing.init = millisecondsSince(start);
  for (const NetInput& input : netInputs(model)) {
    std::vector<float> data(static_cast<size_t>(std::max<int64_t>(0, input.shape.elements())));
    for (float& value : data) value = values(random);
    if (!engine.setInput(input.layer, input.shape, std::move(data))) return "input \"" + input.layer + "\" of " + path;
  }
  const Progress progress(timing.name, command.runs);
  for (int i = -1 - command.warmup; i < command.runs; ++i) {
    progress.at(std::max(0, i));
    const auto begin = Clock::now();
    if (!engine.run()) return "the network does not run: " + path;
    const double time = millisecondsSince(begin);
    if (i == -1 - command.warmup) timing.first = time;
    if (i >= 0) timing.runs.push_back(time);
  }
  std::sort(timing.runs.begin(), timing.runs.end());
  if (!command.profile) return "";
  profile::initProfile();
  profile::install();
  bool ran = true;
  for (int i = 0; i < command.runs && ran; ++i) ran = engine.runProfiled();
  profile::uninstall();
  timing.layers.swap(profile::g_layer_time);
  return ran ? "" : "the network does not run: " + path;
}

void printTable(const std::vector<Timing>& timings, const BenchCommand& command) {
  size_t width = 4;
  for (const Timing& timing : timings) width = std::max(width, timing.name.size());
  const int name = static_cast<int>(width);
  const SlotOptions& slot = command.slot;
  std::printf("milliseconds; %d runs after %d to warm up, ", command.runs, command.warmup);
  if (slot.gpu) {
    std::printf("%s, %s\n", slot.deviceName().c_str(), slot.typeName().c_str());
  } else {
    std::printf("%d thread%s\n", slot.threads, slot.threads == 1 ? "" : "s");
  }
  std::printf("%-*s  %9s %9s  %9s %9s %9s %9s %9s\n", name, "name", "init", "first", "min", "max", "avg", "median",
              "p90");
  for (const Timing& t : timings) {
    std::printf("%-*s  %9.2f %9.2f  %9.2f %9.2f %9.2f %9.2f %9.2f\n", name, t.name.c_str(), t.init, t.first,
                t.runs.front(), t.runs.back(), t.average(), t.quantile(0.5), t.quantile(0.9));
  }
}

void printJson(const std::vector<Timing>& timings, const BenchCommand& command) {
  nlohmann::ordered_json root;
  root["unit"] = "ms";
  root["runs"] = command.runs;
  root["warmup"] = command.warmup;
  root["device"] = command.slot.deviceName();
  root["type"] = command.slot.typeName();
  root["threads"] = command.slot.threads;
  root["seed"] = command.seed;
  for (const Timing& t : timings) {
    root["models"].push_back({{"name", t.name},
                              {"init", t.init},
                              {"first", t.first},
                              {"min", t.runs.front()},
                              {"max", t.runs.back()},
                              {"avg", t.average()},
                              {"median", t.quantile(0.5)},
                              {"p90", t.quantile(0.9)}});
  }
  std::printf("%s\n", root.dump(2).c_str());
}

/// What the device itself worked on each layer.
void printProfiles(std::vector<Timing>& timings) {
  for (Timing& timing : timings) {
    if (timings.size() > 1) std::printf("%s\n", timing.name.c_str());
    profile::g_layer_time.swap(timing.layers);
    profile::printProfileResult();
  }
}

}  // namespace

int runBench(const BenchCommand& command) {
  configureEngine(command.slot, command.engine);
  std::vector<Timing> timings;
  for (const std::string& path : command.models) {
    Timing timing;
    const std::string failure = measure(path, command, timing);
    if (!failure.empty()) return fail(failure);
    timings.push_back(std::move(timing));
  }
  command.json ? printJson(timings, command) : printTable(timings, command);
  if (command.profile) printProfiles(timings);
  return 0;
}

}  // namespace corvalith::tools
