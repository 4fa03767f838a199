// One Caffe network on Corvalith and on OpenCV DNN: the same input, runs in turn, times and the largest difference of
// the outputs. Usage: opencv_peer NAME MODEL.cvm NET.prototxt NET.caffemodel INPUT RUNS [THREADS]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <random>
#include <string>
#include <vector>

#include "corvalith/corvalith.h"

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsOf(const std::function<void()>& work) {
  const auto start = Clock::now();
  work();
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void require(bool good, const char* what) {
  if (good) return;
  std::fprintf(stderr, "opencv_peer: %s failed\n", what);
  std::exit(1);
}

struct Times {
  std::vector<double> all;
  double at(double part) const { return all[static_cast<size_t>(part * static_cast<double>(all.size() - 1))]; }
  void print(const std::string& net, const char* engine) {
    std::sort(all.begin(), all.end());
    double sum = 0;
    for (double t : all) sum += t;
    std::printf("%-16s %-10s min %8.2f  max %8.2f  avg %8.2f  median %8.2f ms\n", net.c_str(), engine, all.front(),
                all.back(), sum / static_cast<double>(all.size()), at(0.5));
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 7) {
    std::fprintf(stderr, "usage: opencv_peer NAME MODEL.cvm NET.prototxt NET.caffemodel INPUT RUNS [THREADS]\n");
    return 2;
  }
  const std::string name = argv[1], input = argv[5];
  const int runs = std::max(1, std::atoi(argv[6]));
  cv::setNumThreads(argc > 7 ? std::atoi(argv[7]) : 1);

  const int cpu = CORVALITH_CPU, fp32 = CORVALITH_FP32, id = 0;
  void* agent = CorvalithBuildAgent(&cpu, &fp32, &id, 1);
  int n, c, h, w;
  require(CorvalithBuildModel(agent, argv[2]) == 0, "loading the model");
  require(CorvalithInitialize(agent) == 0, "initialising the network");
  require(CorvalithGetNetInputSize(agent, &n, &c, &h, &w, input.c_str(), 0) == 0, "finding the input");
  std::vector<float> data(static_cast<size_t>(n) * static_cast<size_t>(c) * static_cast<size_t>(h) *
                          static_cast<size_t>(w));
  std::mt19937 random(1);
  std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
  for (float& value : data) value = uniform(random);
  require(CorvalithSetNetInput(agent, data.data(), n, c, h, w, input.c_str(), 0) == 0, "setting the input");

  cv::dnn::Net peer = cv::dnn::readNetFromCaffe(argv[3], argv[4]);
  peer.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  const int sizes[] = {n, c, h, w};
  peer.setInput(cv::Mat(4, sizes, CV_32F, data.data()));

  cv::Mat theirs;
  Times ourTimes, theirTimes;
  for (int run = -2; run < runs; ++run) {  // two rounds to warm up
    const double ours = millisecondsOf([&] { require(CorvalithExecuteNet(agent) == 0, "running"); });
    const double other = millisecondsOf([&] { theirs = peer.forward(); });
    if (run < 0) continue;
    ourTimes.all.push_back(ours);
    theirTimes.all.push_back(other);
  }

  require(CorvalithGetNetOutputSize(agent, &n, &c, &h, &w, 0) == 0, "finding the output");
  std::vector<float> ours(static_cast<size_t>(n) * static_cast<size_t>(c) * static_cast<size_t>(h) *
                          static_cast<size_t>(w));
  require(CorvalithGetNetOutput(agent, ours.data(), static_cast<int>(ours.size()), 0) == 0, "reading the output");
  require(theirs.total() == ours.size(), "comparing output sizes");
  double largest = 0, difference = 0;
  for (size_t i = 0; i < ours.size(); ++i) {
    largest = std::max(largest, std::fabs(static_cast<double>(theirs.ptr<float>()[i])));
    difference = std::max(difference, std::fabs(static_cast<double>(ours[i]) - theirs.ptr<float>()[i]));
  }
  ourTimes.print(name, "corvalith");
  theirTimes.print(name, "opencv");
  std::printf("%-16s median ratio corvalith / opencv %.2f; largest difference %.2g of the output's maximum\n",
              name.c_str(), ourTimes.at(0.5) / theirTimes.at(0.5), difference / std::max(largest, 1e-30));
  CorvalithRelease(&agent);
  return difference <= 1e-4 * largest ? 0 : 1;
}
