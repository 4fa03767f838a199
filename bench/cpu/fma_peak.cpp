// Prints how many GFLOP/s fused multiply-adds on registers reach, on as many threads as are given: what any engine's
// arithmetic is bounded by. Usage: fma_peak [THREADS]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

double chainsOfLongVectors();
double chainsOfVectors();

namespace {

double gigaflops() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f")) return chainsOfLongVectors();
#endif
  return chainsOfVectors();
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<double> results(static_cast<size_t>(argc > 1 ? std::max(1, std::atoi(argv[1])) : 1));
  std::vector<std::thread> threads;
  for (double& result : results) threads.emplace_back([&result] { result = gigaflops(); });
  double sum = 0;
  for (size_t i = 0; i < results.size(); ++i) {
    threads[i].join();
    sum += results[i];
  }
  std::printf("%.1f\n", sum);
}
