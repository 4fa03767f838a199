// half_model FOLDER [RUNS]: loads a network with random weights from its full model and from the half-precision copy
// that it makes of it, in FOLDER, on PoCL as a GPU; in turn, every time in a process of its own. Prints size, time and
// memory.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/layers/conv_cases.h"
#include "tests/support/gpu_slot.h"
#include "tests/support/public_agent.h"

namespace {

using namespace corvalith;
using namespace corvalith::testing;

void require(bool worked, const char* what) {
  if (worked) return;
  std::fprintf(stderr, "failed: %s\n", what);
  std::_Exit(1);
}

/// 3 x 3, 1 x 1 and strided convolutions, and most weights in a fully connected layer: 33 million in all.
std::vector<tools::ModelLayer> network() {
  std::vector<tools::ModelLayer> layers{inputLayer("0", {1, 64, 28, 28})};
  const auto append = [&](tools::ModelLayer layer) {
    layer.bottoms = {layers.back().name};
    layer.name = std::to_string(layers.size());
    layer.tops = {layer.name};
    layers.push_back(std::move(layer));
  };
  append(convCase("", 64, 512, {1, 1}).layer);
  append(convCase("", 512, 512, {3, 3, 1, 1, 1, 1}).layer);
  append(convCase("", 512, 512, {3, 3, 2, 2, 1, 1}).layer);
  append(convCase("", 512, 512, {3, 3, 1, 1, 1, 1}).layer);
  append(convCase("", 512, 512, {3, 3, 2, 2, 1, 1}).layer);
  tools::ModelLayer fc = layer("FC", "", {}, FCParam{1000});
  fc.weights = noise(size_t{1000} * 512 * 7 * 7, 3);
  fc.biases = noise(size_t{1000}, 4);
  append(fc);
  return layers;
}

struct Load {
  double milliseconds;
  double megabytes;  // the process' peak, less what it had before
};

double peak() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

/// Loads and initialises in this process; `dumpTo` unless it is empty.
Load load(const std::string& path, const std::string& dumpTo = "") {
  useTestProgram();
  rig::settings().poison = false;
  PublicAgent agent({{CORVALITH_GPU, CORVALITH_FP16, 0}});
  const double before = peak();
  const auto start = std::chrono::steady_clock::now();
  require(agent.build(path) == 0 && agent.initialize() == 0, path.c_str());
  const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
  require(dumpTo.empty() || CorvalithDumpModelForHalfFloat(agent.handle(), dumpTo.c_str(), 0) == 0, "dump");
  return {time.count(), peak() - before};
}

/// The same in a process of its own, which nothing has used before.
Load loadApart(const std::string& path, const std::string& dumpTo = "") {
  int ends[2];
  require(pipe(ends) == 0, "pipe");
  const pid_t child = fork();
  require(child >= 0, "fork");
  if (child == 0) {
    const Load measured = load(path, dumpTo);
    std::_Exit(write(ends[1], &measured, sizeof measured) == sizeof measured ? 0 : 1);
  }
  close(ends[1]);
  Load measured{};
  const bool whole = read(ends[0], &measured, sizeof measured) == sizeof measured;
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  require(whole && status == 0, path.c_str());
  return measured;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
  const std::string paths[] = {folder + "/full.cvm", folder + "/half.nb"};
  {
    const std::vector<char> bytes = tools::modelBytes("net", network());
    std::ofstream(paths[0], std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  loadApart(paths[0], paths[1]);
  std::vector<double> times[2], memory[2];
  for (int run = 0; run < runs; ++run) {
    for (int i = 0; i < 2; ++i) {
      const Load measured = loadApart(paths[i]);
      times[i].push_back(measured.milliseconds);
      memory[i].push_back(measured.megabytes);
    }
  }
  std::printf("%-16s %10s %12s %14s\n", "model", "file MB", "load ms", "peak MB");
  for (int i = 0; i < 2; ++i) {
    const double size = static_cast<double>(std::filesystem::file_size(paths[i])) / (1 << 20);
    std::printf("%-16s %10.1f %12.1f %14.1f\n", i == 0 ? "full" : "half precision", size, median(times[i]),
                median(memory[i]));
  }
  std::printf("%-16s %10s %12.2f %14.2f\n", "half / full", "", median(times[1]) / median(times[0]),
              median(memory[1]) / median(memory[0]));
}
