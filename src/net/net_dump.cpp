// The half-precision copy of a model.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "core/log.h"
#include "net/net.h"

namespace corvalith {
namespace {

/// The file that is being written. A copy that is given up gets a layer count that no model has, in case it cannot be
/// removed.
class HalfModelFile {
 public:
  explicit HalfModelFile(char const* path) {
    out_.rdbuf()->pubsetbuf(nullptr, 0);  // a full disk shows at once; all large writes are whole anyway
    out_.open(path, std::ios::binary);
  }

  bool isOpen() const { return out_.is_open(); }
  std::ofstream& stream() { return out_; }

  bool write(char const* bytes, size_t size) {
    out_.write(bytes, static_cast<std::streamsize>(size));
    return !out_.fail();
  }

  /// Marks the file, closes it and logs why. Returns -1.
  int giveUp(const char* text) {
    const int32_t mark = -1;
    out_.clear();
    out_.seekp(0);
    out_.write(reinterpret_cast<const char*>(&mark), sizeof mark);
    out_.close();
    return fail(text);
  }

  /// Puts the size of the record of `size` bytes that was just written into the header before it. Returns 0 or -1.
  int patchHeader(LayerTypeHeader header, int size) {
    header.recordSize = static_cast<uint32_t>(size);
    const std::streampos end = out_.tellp();
    if (end == std::streampos(-1)) return giveUp("ftell failed");
    out_.seekp(end - std::streamoff{size} - static_cast<std::streamoff>(sizeof header));
    if (out_.fail()) return giveUp("fseek failed");
    if (!write(reinterpret_cast<const char*>(&header), sizeof header)) return giveUp("write layer des failed");
    out_.seekp(end);
    return out_.fail() ? giveUp("fseek failed") : 0;
  }

  bool close() {
    out_.close();  // writes what is left
    return !out_.fail();
  }

 private:
  std::ofstream out_;
};

int dumpLayer(Model& model, Layer& layer, HalfModelFile& file) {
  char const* bytes = nullptr;
  if (model.getDataPtr(sizeof(LayerTypeHeader), bytes) != 0) return file.giveUp("get data ptr failed");
  LayerTypeHeader header;
  std::memcpy(&header, bytes, sizeof header);
  if (!file.write(bytes, sizeof header)) return file.giveUp("write layer des failed");
  if (model.getDataPtr(header.recordSize, bytes) != 0) return file.giveUp("get data ptr failed");
  const int written = layer.setLayerParam(bytes, static_cast<int>(header.recordSize), LOAD_DUMP, &file.stream());
  if (written > 0) return file.patchHeader(header, written);
  if (written == 0) return file.write(bytes, header.recordSize) ? 0 : file.giveUp("write layer des failed");
  if (file.stream().fail()) return file.giveUp("write dump failed message failed");
  logDebug("set layer param err");
  return -1;
}

}  // namespace

int Net::parserModelForDump(std::shared_ptr<Model> model, char const* path) {
  if (context_->getDataType() != CORVALITH_FP16 || context_->getDeviceType() != CORVALITH_GPU) {
    return fail("model dump need GPU fp16 type");
  }
  HalfModelFile file(path);
  if (!file.isOpen()) {
    std::printf("Failed to open %s, the reason is %s\n", path, std::strerror(errno));
    return -1;
  }
  model->setOffset(0);
  char const* bytes = nullptr;
  if (model->getDataPtr(sizeof(NetDescriptor), bytes) != 0) return file.giveUp("get data ptr failed");
  if (!file.write(bytes, sizeof(NetDescriptor))) return file.giveUp("write net des failed");
  NetDescriptor descriptor;
  std::memcpy(&descriptor, bytes, sizeof descriptor);
  layerCount_ = descriptor.layerCount;
  if (layerCount_ == 0 || layerCount_ != layers_.size()) {
    logDebug("model information err");
    return -1;
  }
  for (const std::shared_ptr<Layer>& layer : layers_) {
    if (dumpLayer(*model, *layer, file) != 0) return -1;
  }
  // Without weights nothing else tells a network that was never initialised.
  if (state_ != State::kInitialised) {
    logDebug("set layer param err");
    return -1;
  }
  return file.close() ? 0 : fail("write layer des failed");
}

}  // namespace corvalith
