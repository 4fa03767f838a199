// The subcommands of `corvalith`. Each returns the program's exit status and writes one clear line per error.
#pragma once

#include <string>
#include <vector>

#include "tools/common/feeds.h"
#include "tools/convert/convert.h"

namespace corvalith::tools {

struct ConvertCommand {
  std::vector<std::string> files;        // sources, then the model file
  std::vector<std::string> inputShapes;  // "NAME=1,3,224,224"
  bool noOptimize = false;
  bool quiet = false;
};
int runConvert(const ConvertCommand& command);

struct InspectCommand {
  std::string model;
  bool json = false, dot = false, prototxt = false;
};
int runInspect(const InspectCommand& command);

struct RunCommand {
  std::string model;
  InputOptions inputs;
  std::vector<std::string> outputs;  // "TOP=file.npy"
  std::string dumpFolder;            // for all tops; empty for none
  int top = 5;
  SlotOptions slot;
  EngineOptions engine;
};
int runRun(const RunCommand& command);

struct DetectCommand {
  std::string model, image;
  std::string output;  // PNG to write; empty for none
  std::string labels;  // file with one name a line; empty for none
  ImageOptions pixels;
  float threshold = 0.5f;
  bool letterbox = false;  // keep the picture's proportions; otherwise it is stretched
  bool json = false;
  SlotOptions slot;
  EngineOptions engine;
};
int runDetect(const DetectCommand& command);

struct BenchCommand {
  std::vector<std::string> models;
  int runs = 20, warmup = 3;
  unsigned seed = 1;
  bool json = false;
  bool profile = false;  // on a GPU
  SlotOptions slot;
  EngineOptions engine;
};
int runBench(const BenchCommand& command);

struct CompareCommand {
  std::string a, b;     // model files or folders of dumped arrays; B is the reference
  InputOptions inputs;  // of models; those that are not given come from a folder on the other side, or are noise
  SlotOptions slotA, slotB;
  EngineOptions engine;
  double tolerance = 1e-4;  // for the largest difference of a top over its reference's largest value
  unsigned seed = 1;
  bool json = false;
};
/// 0 where all tops that both have agree, 1 where one does not, 2 where they cannot be compared.
int runCompare(const CompareCommand& command);

/// Exactly one of `list`, `output` and `check`.
struct KernelsCommand {
  bool list = false;
  std::string output, check;  // program files
  int device = 0;
};
int runKernels(const KernelsCommand& command);

struct DumpHalfCommand {
  std::string model, output;
  SlotOptions slot{true, 0, true, 1};
  EngineOptions engine;
};
int runDumpHalf(const DumpHalfCommand& command);

/// "error: text" on standard error; gives the exit status of a failed command.
int fail(const std::string& text);

}  // namespace corvalith::tools
