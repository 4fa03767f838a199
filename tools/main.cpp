// The command line of `corvalith`. What its subcommands do is in commands/.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <new>

#include "tools/commands/commands.h"
#include "tools/common/half_model.h"

namespace {

using namespace corvalith::tools;

/// "127.5" for all channels, or "104,117,123".
void addChannels(CLI::App& app, const char* name, std::array<float, 3>& target, const char* help) {
  const auto parse = [name, &target](const std::string& text) {
    std::vector<float> values;
    for (const std::string& part : CLI::detail::split(text, ',')) {
      float value = 0;
      if (!CLI::detail::lexical_cast(part, value)) throw CLI::ValidationError(name, part + " is no number");
      values.push_back(value);
    }
    if (values.size() == 1) values.resize(3, values[0]);
    if (values.size() != 3) throw CLI::ValidationError(name, "takes one number or three");
    std::copy(values.begin(), values.end(), target.begin());
  };
  app.add_option_function<std::string>(name, parse, help)->type_name("N or N,N,N");
}

/// An option that may be given several times, with one value each time.
CLI::Option* addList(CLI::App& app, const char* name, std::vector<std::string>& target, const char* help) {
  return app.add_option(name, target, help)->allow_extra_args(false);
}

/// `suffix` tells the sides of a comparison apart.
void addSlotOptions(CLI::App& app, SlotOptions& slot, const std::string& suffix = "") {
  const std::string device = "--device" + suffix, type = "--type" + suffix;
  const auto parseDevice = [&slot, device](const std::string& text) {
    slot.gpu = text.rfind("gpu", 0) == 0;
    if (text == "cpu" || text == "gpu") return;
    if (text.rfind("gpu:", 0) != 0 || !CLI::detail::lexical_cast(text.substr(4), slot.id) || slot.id < 0) {
      throw CLI::ValidationError(device, "is cpu, gpu or gpu:N, not " + text);
    }
  };
  // Options are taken in the order in which they are added: the device is known.
  const auto parseType = [&slot, type](const std::string& text) {
    slot.half = text == "fp16";
    if (slot.half && !slot.gpu) throw CLI::ValidationError(type, "fp16 is for GPUs only");
  };
  app.add_option_function<std::string>(device, parseDevice,
                                       "where it runs: cpu, gpu or gpu:1, as `corvalith kernels --list` counts [cpu]")
      ->type_name("DEVICE");
  app.add_option_function<std::string>(type, parseType, "what tensors hold; fp16 on a GPU only [fp32]")
      ->check(CLI::IsMember({"fp32", "fp16"}))
      ->type_name("TYPE");
  app.add_option("--threads" + suffix, slot.threads, "CPU threads, 1 to 8")
      ->check(CLI::Range(1, 8))
      ->capture_default_str();
}

void addEngineOptions(CLI::App& app, EngineOptions& options) {
  app.add_option("--program-file", options.programFile,
                 "what `corvalith kernels` made for the GPU, where it is elsewhere")
      ->type_name("FILE");
  app.add_flag("--verbose", options.verbose, "show the engine's progress lines");
}

void addPixelOptions(CLI::App& app, ImageOptions& pixels) {
  addChannels(app, "--mean", pixels.mean, "subtracted from pixels (0 to 255), in the network's channel order");
  addChannels(app, "--scale", pixels.scale, "what the difference is multiplied by");
  app.add_option_function<std::string>(
         "--channel-order", [&pixels](const std::string& order) { pixels.bgr = order == "bgr"; },
         "the network's channels: rgb or bgr [rgb]")
      ->check(CLI::IsMember({"rgb", "bgr"}))
      ->type_name("ORDER");
}

void addInputOptions(CLI::App& app, InputOptions& inputs) {
  addList(app, "--input", inputs.arrays, "float32 .npy array for an input layer; the name may be left out")
      ->type_name("[NAME=]FILE.npy");
  addList(app, "--image", inputs.pictures,
          "PNG or JPEG picture for an input layer, resized bilinearly (pixel centres at half) to its size")
      ->type_name("[NAME=]FILE");
  addPixelOptions(app, inputs.pixels);
}

CLI::App& addConvert(CLI::App& app, ConvertCommand& command) {
  CLI::App& sub = *app.add_subcommand("convert", "make a model file from a Caffe or ONNX network");
  sub.footer("corvalith convert net.prototxt net.caffemodel out.cvm\ncorvalith convert net.onnx out.cvm");
  sub.add_option("files", command.files, "the network, then the model file to write")->required()->expected(2, 3);
  addList(sub, "--input-shape", command.inputShapes, "shape of an input instead of the network's own")
      ->type_name("NAME=N,C,H,W");
  sub.add_flag("--no-optimize", command.noOptimize, "fold nothing: every name of the network stays readable");
  sub.add_flag("--quiet", command.quiet, "do not list the rewrites");
  return sub;
}

CLI::App& addInspect(CLI::App& app, InspectCommand& command) {
  CLI::App& sub = *app.add_subcommand("inspect", "show what a model file holds");
  sub.add_option("model", command.model, "model file")->required();
  CLI::Option* json = sub.add_flag("--json", command.json, "as JSON");
  CLI::Option* dot = sub.add_flag("--dot", command.dot, "as a graph for Graphviz");
  CLI::Option* prototxt = sub.add_flag("--prototxt", command.prototxt, "as Caffe-style text for graph viewers");
  json->excludes(dot)->excludes(prototxt);
  dot->excludes(prototxt);
  return sub;
}

CLI::App& addRun(CLI::App& app, RunCommand& command) {
  CLI::App& sub = *app.add_subcommand("run", "run a model file once");
  sub.add_option("model", command.model, "model file")->required();
  addInputOptions(sub, command.inputs);
  addList(sub, "--output", command.outputs, "write a top as a .npy array")->type_name("TOP=FILE.npy");
  sub.add_option("--dump-all", command.dumpFolder, "write every top as FOLDER/TOP.npy, with / and the like as %2F")
      ->type_name("FOLDER");
  sub.add_option("--top", command.top, "how many of the network output's largest values to print")
      ->check(CLI::Range(0, 1 << 28))
      ->capture_default_str();
  addSlotOptions(sub, command.slot);
  addEngineOptions(sub, command.engine);
  return sub;
}

CLI::App& addDetect(CLI::App& app, DetectCommand& command) {
  CLI::App& sub = *app.add_subcommand("detect", "find objects in a picture with a detector");
  sub.footer("One line per detection: label, score, and the box in the picture's pixels (left, top, right, bottom).");
  sub.add_option("model", command.model, "model file whose last layer lists detections")->required();
  sub.add_option("--image", command.image, "PNG or JPEG picture")->required();
  sub.add_option("--output", command.output, "write the picture with the boxes drawn")->type_name("FILE.png");
  addPixelOptions(sub, command.pixels);
  sub.add_option("--labels", command.labels, "names of the labels, one a line, the first that of label 0");
  sub.add_option("--threshold", command.threshold, "least score")->capture_default_str();
  sub.add_flag(
      "--letterbox", command.letterbox,
      "keep the picture's proportions, with borders of the mean colour; otherwise it is stretched to the input");
  sub.add_flag("--json", command.json, "as JSON");
  addSlotOptions(sub, command.slot);
  addEngineOptions(sub, command.engine);
  return sub;
}

CLI::App& addBench(CLI::App& app, BenchCommand& command) {
  CLI::App& sub = *app.add_subcommand("bench", "time model files with random input");
  sub.add_option("models", command.models, "model files")->required();
  sub.add_option("--runs", command.runs, "runs that count")->check(CLI::Range(1, 1000000))->capture_default_str();
  sub.add_option("--warmup", command.warmup, "runs before them, after the first")
      ->check(CLI::Range(0, 1000000))
      ->capture_default_str();
  sub.add_option("--seed", command.seed, "seed of the input")->capture_default_str();
  CLI::Option* json = sub.add_flag("--json", command.json, "as JSON");
  addSlotOptions(sub, command.slot);
  const auto profile = [&command](int64_t) {
    if (!command.slot.gpu) throw CLI::ValidationError("--profile", "needs --device gpu");
    command.profile = true;
  };
  sub.add_flag_function("--profile", profile, "run again and report the GPU's time on each layer")->excludes(json);
  addEngineOptions(sub, command.engine);
  return sub;
}

CLI::App& addCompare(CLI::App& app, CompareCommand& command) {
  CLI::App& sub = *app.add_subcommand("compare", "tell how far two runs are apart, layer by layer");
  sub.footer(
      "A and B: model files, or folders that `run --dump-all` wrote. Inputs that are not given come from such a "
      "folder,\n"
      "or are noise. Exit status: 0 all agree, 1 some differ, 2 cannot be compared.");
  sub.add_option("A", command.a, "model file or folder")->required();
  sub.add_option("B", command.b, "the reference: model file or folder")->required();
  addInputOptions(sub, command.inputs);
  sub.add_option("--tolerance", command.tolerance,
                 "largest difference allowed, as a part of the largest value that B has for the top")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  addSlotOptions(sub, command.slotA, "-a");
  addSlotOptions(sub, command.slotB, "-b");
  sub.add_option("--seed", command.seed, "seed of the noise")->capture_default_str();
  sub.add_flag("--json", command.json, "as JSON");
  addEngineOptions(sub, command.engine);
  return sub;
}

CLI::App& addKernels(CLI::App& app, KernelsCommand& command) {
  CLI::App& sub = *app.add_subcommand("kernels", "make and check the program file that a GPU needs");
  sub.footer("A program file holds all kernels as built by the GPU's own driver; FILE.json beside it says for what.");
  CLI::App& what = *sub.add_option_group("What to do");
  what.add_flag("--list", command.list, "show the GPUs");
  what.add_option("--output", command.output, "build the kernels")->type_name("FILE");
  what.add_option("--check", command.check, "tell whether a program file fits the GPU, its driver and these kernels")
      ->type_name("FILE");
  what.require_option(1);
  sub.add_option("--device", command.device, "which GPU")->check(CLI::NonNegativeNumber)->capture_default_str();
  return sub;
}

CLI::App& addDumpHalf(CLI::App& app, DumpHalfCommand& command) {
  CLI::App& sub = *app.add_subcommand("dump-half", "make the half-precision model that a GPU loads faster");
  sub.footer("OUT.json beside it says which GPU, program file and input sizes it is tied to.");
  const auto marked = [](const std::string& path) {
    return isHalfModelPath(path) ? "" : path + " needs \".nb\" in it: by that the engine knows half-precision models";
  };
  const auto unmarked = [](const std::string& path) {
    return isHalfModelPath(path) ? path + " has \".nb\" in it: it would be read as a half-precision model" : "";
  };
  const auto device = [&command](const std::string& text) {
    if (text == "gpu") return;
    if (text.rfind("gpu:", 0) != 0 || !CLI::detail::lexical_cast(text.substr(4), command.slot.id) ||
        command.slot.id < 0) {
      throw CLI::ValidationError("--device", "is gpu or gpu:N, not " + text);
    }
  };
  sub.add_option("model", command.model, "model file")->required()->check(unmarked);
  sub.add_option("output", command.output, "model to write, with \".nb\" in its path")->required()->check(marked);
  sub.add_option_function<std::string>("--device", device, "the GPU it is for, as `corvalith kernels --list` counts")
      ->type_name("DEVICE");
  addEngineOptions(sub, command.engine);
  return sub;
}

/// Half-precision models run where they were made for.
void checkSlot(const std::string& model, const SlotOptions& slot, const std::string& suffix = "") {
  std::error_code ignored;
  if (!isHalfModelPath(model) || slot.half || std::filesystem::is_directory(model, ignored)) return;
  throw CLI::ValidationError(model, "is a half-precision model by the \".nb\" in its path: it needs --device" + suffix +
                                        " gpu --type" + suffix + " fp16");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Corvalith: converts, inspects and runs neural networks.", "corvalith");
  app.set_version_flag("--version", "corvalith " CORVALITH_VERSION);
  app.require_subcommand(1);
  ConvertCommand convert;
  InspectCommand inspect;
  RunCommand run;
  DetectCommand detect;
  BenchCommand bench;
  CompareCommand compare;
  KernelsCommand kernels;
  DumpHalfCommand dumpHalf;
  int status = 0;
  addConvert(app, convert).callback([&] { status = runConvert(convert); });
  addInspect(app, inspect).callback([&] { status = runInspect(inspect); });
  addRun(app, run).callback([&] {
    checkSlot(run.model, run.slot);
    status = runRun(run);
  });
  addDetect(app, detect).callback([&] {
    checkSlot(detect.model, detect.slot);
    status = runDetect(detect);
  });
  addBench(app, bench).callback([&] {
    for (const std::string& model : bench.models) checkSlot(model, bench.slot);
    status = runBench(bench);
  });
  addCompare(app, compare).callback([&] {
    checkSlot(compare.a, compare.slotA, "-a");
    checkSlot(compare.b, compare.slotB, "-b");
    status = runCompare(compare);
  });
  addKernels(app, kernels).callback([&] { status = runKernels(kernels); });
  addDumpHalf(app, dumpHalf).callback([&] { status = runDumpHalf(dumpHalf); });
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  } catch (const std::bad_alloc&) {
    return fail("out of memory");
  }
  return status;
}
