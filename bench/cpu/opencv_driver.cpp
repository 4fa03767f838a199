// OpenCV DNN on BASE.prototxt and BASE.caffemodel. It prepares much of a network in its first run only.
#include <opencv2/core/utility.hpp>
#include <opencv2/dnn.hpp>

#include "driver.h"

namespace {

class OpenCv final : public Engine {
 public:
  explicit OpenCv(const Job& job) : names_(job.outputs.begin(), job.outputs.end()) {
    cv::setNumThreads(job.threads);
    net_ = cv::dnn::readNetFromCaffe(job.base + ".prototxt", job.base + ".caffemodel");
    net_.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    net_.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
  }

  std::string version() const override { return cv::getVersionString(); }

  void setInput(const Job& job) override {
    input_ = cv::Mat(4, job.shape, CV_32F, const_cast<float*>(job.input.data()));
  }

  void run() override {
    net_.setInput(input_, "data");  // without it, nothing would be computed again
    net_.forward(results_, names_);
  }

  std::vector<float> outputs(const Job&) override {
    std::vector<float> all;
    for (const cv::Mat& m : results_) all.insert(all.end(), m.ptr<float>(), m.ptr<float>() + m.total());
    return all;
  }

 private:
  cv::dnn::Net net_;
  cv::Mat input_;
  std::vector<cv::String> names_;
  std::vector<cv::Mat> results_;
};

}  // namespace

int main(int argc, char** argv) {
  return serve(argc, argv, [](const Job& job) { return std::make_unique<OpenCv>(job); });
}
