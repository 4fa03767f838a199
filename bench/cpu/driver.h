// What the drivers of all engines have in common: one process per engine and network, told what to do line by line.
//   DRIVER BASE THREADS NxCxHxW OUTPUT,OUTPUT   loads the network, feeds the first floats of BASE.input, says "ready
//                                               LOAD_MS VERSION"
//   run N       N times "WALL:CPU" in milliseconds; CPU is that of the whole process
//   dump FILE   writes the outputs as floats, one after the other, and says "done"
//   quit        says the process' peak memory in KiB
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

struct Job {
  std::string base;  // path without extension
  int threads = 1;
  int shape[4] = {0, 0, 0, 0};
  std::vector<std::string> outputs;
  std::vector<float> input;
};

class Engine {
 public:
  virtual ~Engine() = default;
  virtual std::string version() const = 0;
  virtual void setInput(const Job& job) = 0;
  virtual void run() = 0;
  virtual std::vector<float> outputs(const Job& job) = 0;
};

[[noreturn]] inline void fail(const std::string& what) {
  std::fprintf(stderr, "failed: %s\n", what.c_str());
  std::exit(1);
}

inline double wallMilliseconds() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline double cpuMilliseconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) * 1e-6;
}

inline long peakKilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != "VmHWM:") continue;
    long kilobytes;
    status >> kilobytes;
    return kilobytes;
  }
  fail("reading the peak memory");
}

inline Job readJob(int argc, char** argv) {
  if (argc != 5) fail("usage: DRIVER BASE THREADS NxCxHxW OUTPUT,OUTPUT");
  Job job;
  job.base = argv[1];
  job.threads = std::atoi(argv[2]);
  int* shape = job.shape;
  if (std::sscanf(argv[3], "%dx%dx%dx%d", &shape[0], &shape[1], &shape[2], &shape[3]) != 4) fail("shape");
  std::istringstream names(argv[4]);
  for (std::string name; std::getline(names, name, ',');) job.outputs.push_back(name);
  job.input.resize(static_cast<size_t>(shape[0]) * static_cast<size_t>(shape[1]) * static_cast<size_t>(shape[2]) *
                   static_cast<size_t>(shape[3]));
  std::ifstream file(job.base + ".input", std::ios::binary);
  const auto bytes = static_cast<std::streamsize>(job.input.size() * sizeof(float));
  if (!file.read(reinterpret_cast<char*>(job.input.data()), bytes)) fail("reading the input");
  return job;
}

/// `load` makes an engine that needs nothing but its input to run.
template <typename Load>
int serve(int argc, char** argv, Load load) {
  FILE* answers = fdopen(dup(STDOUT_FILENO), "w");
  dup2(STDERR_FILENO, STDOUT_FILENO);  // libraries print there too
  const Job job = readJob(argc, argv);
  const double start = wallMilliseconds();
  std::unique_ptr<Engine> engine = load(job);
  std::fprintf(answers, "ready %.3f %s\n", wallMilliseconds() - start, engine->version().c_str());
  std::fflush(answers);
  engine->setInput(job);

  std::string command, argument;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream(line) >> command >> argument;
    if (command == "run") {
      for (int i = std::stoi(argument); i > 0; --i) {
        const double wall = wallMilliseconds(), cpu = cpuMilliseconds();
        engine->run();
        const double cpuEnd = cpuMilliseconds(), wallEnd = wallMilliseconds();
        std::fprintf(answers, "%.4f:%.4f ", wallEnd - wall, cpuEnd - cpu);
      }
      std::fprintf(answers, "\n");
    } else if (command == "dump") {
      const std::vector<float> values = engine->outputs(job);
      std::ofstream(argument, std::ios::binary)
          .write(reinterpret_cast<const char*>(values.data()),
                 static_cast<std::streamsize>(values.size() * sizeof(float)));
      std::fprintf(answers, "done\n");
    } else {
      std::fprintf(answers, "%ld\n", peakKilobytes());
    }
    std::fflush(answers);
    if (command == "quit") break;
  }
  return 0;
}
