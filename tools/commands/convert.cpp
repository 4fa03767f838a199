#include <cstdio>

#include "tools/commands/commands.h"

namespace corvalith::tools {
namespace {

/// Takes "NAME=1,3,224,224" apart.
bool parseShape(const std::string& text, InputShapes& shapes) {
  const size_t equals = text.rfind('=');
  if (equals == std::string::npos || equals == 0) return false;
  std::vector<int64_t> dims;
  for (const char* at = text.c_str() + equals + 1; *at != '\0';) {
    char* end = nullptr;
    dims.push_back(std::strtoll(at, &end, 10));
    if (end == at || (*end != '\0' && *end != ',')) return false;
    at = *end == ',' ? end + 1 : end;
  }
  shapes[text.substr(0, equals)] = dims;
  return !dims.empty();
}

}  // namespace

int runConvert(const ConvertCommand& command) {
  ConvertOptions options;
  options.sources.assign(command.files.begin(), command.files.end() - 1);
  options.output = command.files.back();
  options.optimize = !command.noOptimize;
  for (const std::string& text : command.inputShapes) {
    if (!parseShape(text, options.inputShapes)) return fail("--input-shape takes NAME=1,3,224,224, not " + text);
  }
  ConvertReport report;
  const int status = convertModel(options, report);
  if (!command.quiet) {
    for (const std::string& note : report.notes) std::printf("%s\n", note.c_str());
  }
  for (const std::string& problem : report.problems) std::fprintf(stderr, "error: %s\n", problem.c_str());
  if (status != 0) {
    std::fprintf(stderr, "error: %zu problem%s, nothing written\n", report.problems.size(),
                 report.problems.size() == 1 ? "" : "s");
    return 1;
  }
  std::printf("%s: %zu layers, %lld parameters, %.1f million multiply-adds, %.1f MB\n", options.output.c_str(),
              report.layers, static_cast<long long>(report.parameters), static_cast<double>(report.multiplyAdds) / 1e6,
              static_cast<double>(report.bytes) / 1e6);
  for (const NamedShape& input : report.inputs) {
    std::printf("input  %s %s\n", input.name.c_str(), shapeText(input.shape).c_str());
  }
  for (const NamedShape& output : report.outputs) {
    std::printf("output %s %s\n", output.name.c_str(), shapeText(output.shape).c_str());
  }
  return 0;
}

int fail(const std::string& text) {
  std::fprintf(stderr, "error: %s\n", text.c_str());
  return 1;
}

}  // namespace corvalith::tools
