// Every text that the engine logs, with its priority and the way in which the test makes the engine log it.
#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace corvalith::testing {

/// Error or debug, as the log shows it.
enum Priority : char { E = 'E', D = 'D' };

/// How a row is provoked. A default one is no way at all, which the test refuses.
struct Way {
  enum Kind { kNone, kPublic, kClass, kReason };
  Kind kind = kNone;
  std::function<void(const std::string& where)> run;
  const char* reason = "";  // why nothing provokes it
};

/// A scenario takes nothing, or the row's `where`.
template <class Scenario>
Way way(Way::Kind kind, Scenario scenario) {
  if constexpr (std::is_invocable_v<Scenario>) {
    return {kind, [scenario](const std::string&) { scenario(); }, ""};
  } else {
    return {kind, scenario, ""};
  }
}

/// Through the public functions.
template <class Scenario>
Way publicly(Scenario scenario) {
  return way(Way::kPublic, std::move(scenario));
}

/// On the class itself, where the public functions cannot make it happen.
template <class Scenario>
Way onClass(Scenario scenario) {
  return way(Way::kClass, std::move(scenario));
}

inline Way because(const char* reason) { return {Way::kReason, nullptr, reason}; }

struct Row {
  const char* where;  // the function, class or layer type that logs it
  Priority priority;
  const char* text;  // the format string
  Way way;
  int times = 1;  // how often the scenario logs it at least: more where several places have one text
};

/// The parts of the table.
std::vector<Row> publicRows();    // the exported functions and the agent
std::vector<Row> coreRows();      // blocks, devices, the model image and the network
std::vector<Row> layerRows();     // layer types and their CPU implementations
std::vector<Row> gpuRows();       // GPU devices, and what GPU implementations have in common
std::vector<Row> gpuLayerRows();  // the layers' GPU implementations; like gpuRows() none where the tests have no GPU

}  // namespace corvalith::testing
