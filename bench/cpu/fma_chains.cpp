// Compiled once for each vector length, with the name of its function as CORVALITH_CHAINS.
#include <algorithm>
#include <ctime>

namespace {

#if defined(__AVX512F__)
constexpr int kLanes = 16;
constexpr int kChains = 24;  // of 32 registers
#elif defined(__AVX2__)
constexpr int kLanes = 8;
constexpr int kChains = 12;  // more than two units times their latency of 4 or 5; with the factors, 14 of 16 registers
#else
constexpr int kLanes = 4;
constexpr int kChains = 24;  // of 32 registers
#endif
typedef float Vector __attribute__((vector_size(kLanes * sizeof(float))));

double cpuSeconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

}  // namespace

/// The best of a few stretches of about 20 ms, of this thread's own time.
double CORVALITH_CHAINS() {
  constexpr long kSteps = 2000000;
  double best = 0;
  for (int stretch = 0; stretch < 10; ++stretch) {
    Vector factor = Vector{} + 0.5f, addend = Vector{} + 1.0f, sums[kChains] = {};
    asm volatile("" : "+m"(factor), "+m"(addend));  // unknown to the compiler; the sums approach 2
    const double start = cpuSeconds();
    for (long step = 0; step < kSteps; ++step) {
#pragma GCC unroll 24
      for (Vector& sum : sums) sum = sum * factor + addend;
    }
    const double seconds = cpuSeconds() - start;
    for (Vector& sum : sums) asm volatile("" ::"m"(sum));
    best = std::max(best, 2e-9 * kLanes * kChains * kSteps / seconds);
  }
  return best;
}
