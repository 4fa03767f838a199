#include "tools/common/half_model.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "core/device_manager.h"
#include "core/gpu_device.h"
#include "corvalith/corvalith.h"
#include "tools/common/files.h"
#include "tools/common/gpus.h"

namespace corvalith::tools {
namespace {

using Json = nlohmann::ordered_json;

std::string sidecarPath(const std::string& path) { return path + ".json"; }

/// Drivers give text of any encoding.
std::string dump(const Json& json) { return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n"; }

Json inputSizes(const ModelFile& model) {
  Json sizes = Json::object();
  for (const NetInput& input : netInputs(model)) {
    sizes[input.layer] = {input.shape.n, input.shape.c, input.shape.h, input.shape.w};
  }
  return sizes;
}

/// What a half-precision model fits, apart from its own bytes.
bool surroundings(const ModelFile& model, const SlotOptions& slot, Json& facts, std::string& error) {
  Gpu gpu;
  std::string program;
  if (!findGpu(slot.id, gpu, error) || !readFile(programFile(), program, error)) return false;
  facts = {{"device", gpu.name},
           {"type", slot.typeName()},
           {"inputs", inputSizes(model)},
           {"program_file_hash", hashText(program)}};
  return true;
}

void addFile(const std::string& bytes, Json& facts) {
  facts["size"] = bytes.size();
  facts["hash"] = hashText(bytes);
}

size_t convertedLayers(const ModelFile& model) {
  const auto converted = [](const ModelLayer& layer) {
    return layer.type == "Conv" || layer.type == "Deconv" || layer.type == "FC";
  };
  return static_cast<size_t>(std::count_if(model.layers.begin(), model.layers.end(), converted));
}

void report(const char* what, const std::string& path) { std::fprintf(stderr, "%s %s\n", what, path.c_str()); }

}  // namespace

bool isHalfModelPath(const std::string& path) { return path.find(".nb") != std::string::npos; }

bool makeHalfModel(const std::string& source, const std::string& path, const SlotOptions& slot, HalfModelFacts& facts,
                   std::string& error) {
  ModelFile model;
  std::string bytes;
  StagedFile file(path);
  if (!readFile(source, bytes, error) || !parseModel(bytes, false, model, error) || !file.open(error)) return false;
  facts.converted = convertedLayers(model);
  facts.bytesBefore = bytes.size();

  Engine engine(slot);
  report("loading", source);
  if (!engine.load(source, error)) return false;
  report("initialising on", slot.deviceName());
  if (!engine.initialize()) {
    error = "the engine does not initialise " + source;
    return false;
  }
  report("writing", path);
  if (!engine.dumpHalf(file.temporary())) {
    error = "the half-precision model cannot be written to " + path;
    return false;
  }
  Json sidecar;
  if (!readFile(file.temporary(), bytes, error) || !surroundings(model, slot, sidecar, error)) return false;
  facts.bytesAfter = bytes.size();
  const auto* device =
      static_cast<const GPUDevice*>(DeviceManager::getDeviceManager()->getDevice(CORVALITH_GPU, slot.id));
  sidecar["bifrost"] = device->isBifrost();
  addFile(bytes, sidecar);
  sidecar["engine_version"] = CORVALITH_VERSION;
  const std::string text = dump(sidecar);
  return file.commit(error) && writeFile(sidecarPath(path), text.data(), text.size(), error);
}

bool checkHalfModel(const std::string& path, const SlotOptions& slot, std::string& error) {
  if (!isHalfModelPath(path)) return true;
  ModelFile model;
  std::string bytes, text, ignored;
  Json present;
  if (!readFile(path, bytes, error) || !parseModel(bytes, true, model, error)) return false;
  if (!readFile(sidecarPath(path), text, ignored)) {
    std::fprintf(stderr, "warning: %s, so nothing tells whether the model fits this GPU and its program file\n",
                 ignored.c_str());
    return true;
  }
  if (!surroundings(model, slot, present, ignored)) return true;
  addFile(bytes, present);
  const std::string remedy = ": make it again with `corvalith dump-half`";
  const Json sidecar = Json::parse(text, nullptr, false);
  if (!sidecar.is_object()) {
    error = sidecarPath(path) + " does not describe a half-precision model" + remedy;
    return false;
  }
  // Through text, as the sidecar went: a driver's bytes need not be UTF-8.
  const Json now = Json::parse(dump(present));
  for (const auto& [key, value] : now.items()) {
    const auto made = sidecar.find(key);
    if (made != sidecar.end() && *made == value) continue;
    error = path + " does not fit: " + key + " is " + value.dump() + " now, and " +
            (made == sidecar.end() ? "unknown" : made->dump()) + " when it was made" + remedy;
    return false;
  }
  return true;
}

}  // namespace corvalith::tools
