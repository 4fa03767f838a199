// Loads, initialises and runs thousands of damaged models. Whatever the damage, every call returns 0 or -1 and the lock
// is free; where it can be said from the damage alone, the model must be accepted or must be refused.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <limits>

#include "core/log.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/public_agent.h"
#include "tests/support/sample_models.h"

namespace corvalith {
namespace {

using namespace corvalith::testing;
using tools::ModelLayer;

enum class Verdict { kAccepted, kRefused, kEither };

const std::vector<uint32_t> kNasty = {
    0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 16, 31, 33, 64, 99, 100, 255, 256, 1023, 1024, 2336, 4096, 0x7fff, 0x8000,
    0xffff, 0x10000, 0x10001, 0x20000, 0x1000000, 0x10000000, 0x3fffffff, 0x40000000, 0x55555556, 0x7ffffffe,
    0x7fffffff, 0x80000000, 0x80000001, 0xc0000000, 0xfffffff6, 0xfffffffd, 0xfffffffe, 0xffffffff,
    // as floats: 1, -1, 2^32, 2^64, the largest, infinities, NaN
    0x3f800000, 0xbf800000, 0x4f800000, 0x5f800000, 0x7f7fffff, 0x7f800000, 0xff800000, 0x7fc00000};
const std::vector<uint32_t> kNastyInPairs = {0, 5, 0x8000, 0x10000, 0x55555556, 0x7fffffff, 0xffffffff};

constexpr size_t kLargestAllocation = 4 << 20;  // keeps accepted sizes, and so the time of a run, small
constexpr int64_t kLargestInput = 1 << 16;

/// A model file without a file system.
class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("model", 0)), path_("/proc/self/fd/" + std::to_string(fd_)) {}
  ~MemoryFile() { close(fd_); }
  void write(const std::vector<char>& bytes) const {
    ASSERT_EQ(ftruncate(fd_, 0), 0);
    ASSERT_EQ(pwrite(fd_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  const std::string& path() const { return path_; }

 private:
  int fd_;
  std::string path_;
};

void ignore(LogPriority, const char*) {}

class HostileSweep : public ::testing::Test {
 protected:
  void SetUp() override { setLogSink(ignore); }
  void TearDown() override {
    setLogSink(nullptr);
    ASSERT_TRUE(lockIsFree());
    RecordProperty("cases", static_cast<int>(cases_));
    std::printf("%ld models, %ld of them accepted\n", cases_, accepted_);
  }

  /// The model's life through the public functions: two input sizes, every output. Whether all went well with the sizes
  /// that the model asks for.
  bool live(const std::vector<char>& bytes) {
    ++cases_;
    const AllocationLimit limit(kLargestAllocation);
    file_.write(bytes);
    PublicAgent agent;
    bool well = agent.build(file_.path()) == 0 && agent.initialize() == 0;
    well = feed(agent, 0) && well && agent.run() == 0;
    readOutputs(agent, bytes);
    if (feed(agent, 1)) agent.run();
    readOutputs(agent, bytes);
    EXPECT_TRUE(lockIsFree());
    if (well) ++accepted_;
    return well;
  }

  void expect(Verdict verdict, const std::vector<char>& bytes, const std::string& damage) {
    const bool accepted = live(bytes);
    if (verdict == Verdict::kEither) return;
    EXPECT_EQ(accepted, verdict == Verdict::kAccepted) << damage;
  }

 private:
  bool feed(PublicAgent& agent, int larger) {
    bool fed = true;
    for (const char* name : {"data", "image"}) {
      Shape s;
      if (CorvalithGetNetInputSize(agent.handle(), &s.n, &s.c, &s.h, &s.w, name, 0) != 0) continue;
      if (s.h < std::numeric_limits<int>::max()) s.h += larger;
      if (s.elements() > kLargestInput) return false;
      const std::vector<float> values = noise(static_cast<size_t>(std::max<int64_t>(s.elements(), 1)), 1);
      fed = agent.setInput(name, {s, values}) == 0 && fed;
    }
    return fed;
  }

  /// Every value of every output is looked at, so that a sanitizer sees reads beyond what was written.
  void readOutputs(PublicAgent& agent, const std::vector<char>& bytes) {
    float sum = 0;
    const auto read = [&](const Tensor& tensor) {
      for (const float value : tensor.values) sum += value;
    };
    for (const ModelLayer& layer : everyLayer_) read(agent.layerOutput(layer.tops[0]));
    if (!bytes.empty()) read(agent.netOutput());
    volatile float sink = sum;
    (void)sink;
  }

  const std::vector<ModelLayer> everyLayer_ = everyTypeModel();
  const MemoryFile file_;
  long cases_ = 0, accepted_ = 0;
};

/// Where the records of a model's layers stand.
std::vector<size_t> headerOffsets(const std::vector<ModelLayer>& layers) {
  std::vector<size_t> offsets = {sizeof(NetDescriptor)};
  for (const ModelLayer& layer : layers) {
    offsets.push_back(offsets.back() + sizeof(LayerTypeHeader) + tools::layerRecord(layer).size());
  }
  return offsets;
}

std::vector<char> patched(std::vector<char> bytes, size_t at, uint32_t value) {
  if (at + sizeof value <= bytes.size()) std::memcpy(&bytes[at], &value, sizeof value);
  return bytes;
}

Verdict only(bool accepted) { return accepted ? Verdict::kAccepted : Verdict::kRefused; }
Verdict refusedIf(bool refused) { return refused ? Verdict::kRefused : Verdict::kEither; }
int32_t asSigned(uint32_t value) { return static_cast<int32_t>(value); }
bool readsSpecialSize(const std::string& type) {
  for (const char* unread :
       {"Conv", "Deconv", "FC", "Crop", "Permute", "Softmax", "PriorBox", "ReLU", "PReLU", "Tanh"}) {
    if (type == unread) return false;
  }
  return true;
}

/// What follows from one word of a basic record, given by its offset, alone.
Verdict ofBasicWord(const ModelLayer& layer, size_t offset, uint32_t value) {
  const bool weighted = layer.type == "Conv" || layer.type == "Deconv" || layer.type == "FC";
  const bool perChannel = layer.type == "Scale" || (layer.type == "BatchNorm" && !layer.weights.empty());
  switch (offset) {
    case offsetof(LayerBasicParam, topCount):
      return only(value == 1);
    case offsetof(LayerBasicParam, bottomCount):
      if (value == layer.bottoms.size()) return Verdict::kAccepted;
      if (value > layer.bottoms.size() || layer.type == "Crop") return Verdict::kRefused;  // names nobody makes
      return layer.type == "Concat" && value > 0 ? Verdict::kEither : refusedIf(value < 2);
    case offsetof(LayerBasicParam, hasSpecial):
      return value != 0 ? Verdict::kAccepted : Verdict::kEither;
    case offsetof(LayerBasicParam, specialSize):
      return readsSpecialSize(layer.type) ? only(value == layer.special.size()) : Verdict::kAccepted;
    case offsetof(LayerBasicParam, weightSize):
      return only((!weighted && !perChannel) || value == layer.weights.size());
    case offsetof(LayerBasicParam, biasSize):
      return only((!weighted && !perChannel && layer.type != "PReLU") || value == layer.biases.size());
    case offsetof(LayerBasicParam, activation):
      return only(layer.type != "Conv" || value <= 1);
    default:
      return Verdict::kAccepted;  // a word that nobody reads
  }
}

/// What follows from one word of a special record alone.
Verdict ofSpecialWord(const ModelLayer& layer, size_t word, uint32_t value) {
  const int32_t number = asSigned(value);
  const std::string& type = layer.type;
  if (type == "InputData") return refusedIf(number < 1);
  if (type == "Data") {
    if (word < 4) return refusedIf(number < 1 || (word == 1 && number > 3) || (word == 2 && number < 6));
    return word == 4 ? refusedIf(number > 8) : Verdict::kAccepted;
  }
  if (type == "Conv" || type == "Deconv") {
    const auto record = layer.specialAs<ConvParam>();
    if (word < 3) return refusedIf(number != (word == 0 ? record.num_output : record.kernel_h));
    if (word < 5) return refusedIf(number < 1);
    if (word < 7) return refusedIf(number < 0);
    return word == 7 ? refusedIf(number != record.group) : Verdict::kAccepted;
  }
  if (type == "FC") return only(number == layer.specialAs<FCParam>().num_output);
  if (type == "Pooling") {
    const bool global = layer.specialAs<PoolingParam>().global_pooling != 0;
    if (word == 0) return only(value <= 1);
    if (word == 1) return global ? Verdict::kAccepted : refusedIf(number < 1);
    return word < 4 ? refusedIf(number < (word == 2 ? 0 : 1)) : Verdict::kEither;
  }
  if (type == "LRN") return word == 2 ? refusedIf(value == 0) : Verdict::kAccepted;
  if (type == "BatchNorm") return word == 0 && layer.weights.empty() ? Verdict::kEither : Verdict::kAccepted;
  if (type == "Eltwise") return only(word > 0 || value <= 2);
  if (type == "Crop") {
    if (word == 0) return only(value == 2);
    return word < 3 ? Verdict::kAccepted : only(value <= (word == 3 ? 6u : 0u));
  }
  if (type == "Flatten") return refusedIf(number < -4 || number > 3);
  if (type == "Reshape") return word < 4 ? Verdict::kEither : only(number == (word == 4 ? 0 : -1));
  if (type == "Permute") return refusedIf(value > (word == 0 ? 4u : 3u));
  if (type == "Softmax") return only(number >= -4 && number <= 3);
  if (type == "Power" || type == "Dropout" || type == "Scale" || type == "Concat") return Verdict::kAccepted;
  return Verdict::kEither;
}

/// One damaged word in one layer.
struct Damage {
  size_t offset;  // in the layer's record, behind its type header
  std::function<Verdict(uint32_t)> verdict;
};

std::vector<Damage> words(const ModelLayer& layer) {
  std::vector<Damage> list;
  for (const size_t offset : {0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 132, 2236, 2332}) {
    list.push_back({offset, [&layer, offset](uint32_t value) { return ofBasicWord(layer, offset, value); }});
  }
  for (size_t word = 0; word < std::min<size_t>(layer.special.size() / 4, 60); ++word) {
    if (layer.special.size() == sizeof(ConvParam) && word > 8) break;  // unread words, all alike
    list.push_back({sizeof(LayerBasicParam) + 4 * word,
                    [&layer, word](uint32_t value) { return ofSpecialWord(layer, word, value); }});
  }
  return list;
}

std::string describe(const ModelLayer& layer, size_t offset, uint32_t value) {
  return layer.type + " '" + layer.name + "', offset " + std::to_string(offset) + ", value " + std::to_string(value);
}

TEST_F(HostileSweep, TheUndamagedModelsAreAccepted) {
  const std::vector<ModelLayer> layers = everyTypeModel();
  EXPECT_TRUE(live(tools::modelBytes("every", layers)));
  for (size_t i = 0; i < layers.size(); ++i) {
    EXPECT_TRUE(live(tools::modelBytes("one", onlyLayer(layers, i)))) << layers[i].name;
  }
}

TEST_F(HostileSweep, EveryWordOfEveryRecord) {
  const std::vector<ModelLayer> layers = everyTypeModel();
  const std::vector<char> whole = tools::modelBytes("every", layers);
  const std::vector<size_t> headers = headerOffsets(layers);
  for (size_t i = 0; i < layers.size(); ++i) {
    for (const Damage& damage : words(layers[i])) {
      for (const uint32_t value : kNasty) {
        // What others make of a layer's odd but fine output cannot be told here: they may refuse it.
        const Verdict verdict = damage.verdict(value);
        const bool mayUpset = verdict == Verdict::kAccepted && damage.offset >= sizeof(LayerBasicParam) &&
                              (layers[i].type == "Concat" || layers[i].type == "Softmax");
        expect(mayUpset ? Verdict::kEither : verdict,
               patched(whole, headers[i] + sizeof(LayerTypeHeader) + damage.offset, value),
               describe(layers[i], damage.offset, value));
      }
    }
    for (const uint32_t value : kNasty) {  // the record's size: what follows then begins elsewhere
      expect(only(value == tools::layerRecord(layers[i]).size()), patched(whole, headers[i], value),
             describe(layers[i], 0, value) + " as the record's size");
    }
  }
  for (const uint32_t value : kNasty) {  // fewer layers make a shorter network
    expect(only(value >= 1 && value <= layers.size()), patched(whole, 0, value), std::to_string(value) + " layers");
  }
}

/// Whether the word counts or measures something, so that its product with another may wrap.
bool isSize(const ModelLayer& layer, const Damage& damage) {
  if (damage.offset < sizeof(LayerBasicParam)) return damage.verdict(0x7fffffff) == Verdict::kRefused;
  if (layer.type != "PriorBox") return true;
  const size_t at = damage.offset - sizeof(LayerBasicParam);
  return at == offsetof(PriorBoxParam, min_size_count) || at == offsetof(PriorBoxParam, max_size_count) ||
         at == offsetof(PriorBoxParam, variance_count) || at == offsetof(PriorBoxParam, ratio_count) ||
         at == offsetof(PriorBoxParam, num_priors);
}

TEST_F(HostileSweep, PairsOfWordsInOneRecord) {
  const std::vector<ModelLayer> layers = everyTypeModel();
  for (size_t i = 0; i < layers.size(); ++i) {
    const std::vector<ModelLayer> net = onlyLayer(layers, i);
    const std::vector<char> whole = tools::modelBytes("pair", net);
    const size_t record = headerOffsets(net)[net.size() - 1] + sizeof(LayerTypeHeader);
    std::vector<Damage> sizes;
    for (const Damage& damage : words(layers[i])) {
      if (isSize(layers[i], damage)) sizes.push_back(damage);
    }
    for (size_t a = 0; a < sizes.size(); ++a) {
      for (size_t b = a + 1; b < std::min(sizes.size(), a + 5); ++b) {
        for (const uint32_t valueA : kNastyInPairs) {
          for (const uint32_t valueB : kNastyInPairs) {
            const bool refused =
                sizes[a].verdict(valueA) == Verdict::kRefused || sizes[b].verdict(valueB) == Verdict::kRefused;
            // Elsewhere two wrongs can agree: sizes that are refused alone may fit each other.
            expect(
                refused && layers[i].type == "InputData" ? Verdict::kRefused : Verdict::kEither,
                patched(patched(whole, record + sizes[a].offset, valueA), record + sizes[b].offset, valueB),
                describe(layers[i], sizes[a].offset, valueA) + " and " + describe(layers[i], sizes[b].offset, valueB));
          }
        }
      }
    }
  }
}

TEST_F(HostileSweep, EveryName) {
  const std::vector<ModelLayer> layers = everyTypeModel();
  const std::vector<char> whole = tools::modelBytes("every", layers);
  const std::vector<size_t> headers = headerOffsets(layers);
  const std::string unterminated(kNameSize, 'A');
  const std::string patterns[] = {
      "",  std::string(kNameSize - 1, 'A'), std::string(kNameSize - 1, '\xff'), "%s%n%s%n%100000d", "data", "conv",
      "fc"};
  const auto renamed = [&](size_t at, const std::string& name) {
    std::vector<char> bytes = whole;
    std::memset(&bytes[at], 0, kNameSize);
    std::memcpy(&bytes[at], name.data(), name.size());
    return bytes;
  };
  const auto sweep = [&](size_t at, bool used, const std::string& what) {
    expect(used ? Verdict::kRefused : Verdict::kAccepted, renamed(at, unterminated), what + " without an end");
    for (const std::string& name : patterns) {
      expect(used ? Verdict::kEither : Verdict::kAccepted, renamed(at, name), what + " '" + name + "'");
    }
  };
  sweep(offsetof(NetDescriptor, name), true, "network");
  for (size_t i = 0; i < layers.size(); ++i) {
    const size_t record = headers[i] + sizeof(LayerTypeHeader);
    const std::string what = layers[i].type + " '" + layers[i].name + "'";
    sweep(headers[i] + offsetof(LayerTypeHeader, type), true, what + " type");
    sweep(record + offsetof(LayerBasicParam, name), true, what + " name");
    for (size_t k = 0; k < kMaxNames; ++k) {
      sweep(record + offsetof(LayerBasicParam, tops) + k * kNameSize, k == 0, what + " top");
      sweep(record + offsetof(LayerBasicParam, bottoms) + k * kNameSize, k < layers[i].bottoms.size(),
            what + " bottom");
    }
  }
}

TEST_F(HostileSweep, EveryLength) {
  const std::vector<ModelLayer> layers = everyTypeModel();
  const std::vector<char> whole = tools::modelBytes("every", layers);
  std::vector<size_t> edges = {0, sizeof(NetDescriptor)};
  for (size_t i = 0; i < layers.size(); ++i) {
    const size_t record = headerOffsets(layers)[i] + sizeof(LayerTypeHeader);
    edges.insert(edges.end(),
                 {record, record + sizeof(LayerBasicParam), record + sizeof(LayerBasicParam) + layers[i].special.size(),
                  record + tools::layerRecord(layers[i]).size()});
  }
  for (const size_t edge : edges) {
    for (const size_t size : {edge - 1, edge, edge + 1}) {
      std::vector<char> bytes = whole;
      bytes.resize(std::min(size, whole.size() + 1));
      expect(only(bytes.size() >= whole.size()), bytes, std::to_string(bytes.size()) + " bytes");
    }
  }
  std::vector<char> trailing = whole;
  trailing.resize(whole.size() + 5000, '\xff');
  expect(Verdict::kAccepted, trailing, "trailing bytes");
}

}  // namespace
}  // namespace corvalith
