// A C++ application of the wrapper. Its model doubles every value of "data" and adds one; made for 1 x 1 x 2 x 2.
#include <corvalith/corvalith.hpp>
#include <cstdio>
#include <type_traits>
#include <utility>

using corvalith::Error;
using corvalith::Network;
using Floats = std::vector<float>;

Floats runOnce(const std::string& model, const Floats& input, const Network::Shape& shape);  // second_user.cpp

namespace {

static_assert(!std::is_copy_constructible_v<Network> && !std::is_copy_assignable_v<Network>);
static_assert(std::is_nothrow_move_constructible_v<Network> && std::is_nothrow_move_assignable_v<Network>);

int failures = 0;

void check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "wrong: %s\n", what);
  ++failures;
}

template <class Operation>
void refused(const char* part, Operation operation) {
  try {
    operation();
    check(false, part);
  } catch (const Error& error) {
    check(std::string(error.what()).find(part) != std::string::npos, error.what());
  }
}

void outputs(const std::string& model) {
  Network net(model);
  check(net.inputShape("data") == Network::Shape{1, 1, 2, 2}, "the model's input shape");
  net.setMaxInputShape("data", {2, 1, 3, 1});
  const Floats four = {1, -2, 3, 0.5f}, six = {0, 1, 2, 3, 4, 5};
  net.setInput("data", four, {1, 1, 2, 2});
  net.run();
  check(net.output() == Floats{3, -3, 7, 2}, "output");
  check(net.layerOutput("data") == four, "output of the input layer");
  net.setInput("data", six.data(), {2, 1, 3, 1});
  net.run();
  check(net.outputShape() == Network::Shape{2, 1, 3, 1}, "output shape of another input");
  check(net.layerOutputShape("double") == Network::Shape{2, 1, 3, 1}, "layer output shape of another input");
  check(net.output() == Floats{1, 3, 5, 7, 9, 11}, "output of another input");
}

void slots(const std::string& model) {
  Network net(model, {{}, {CORVALITH_CPU, CORVALITH_FP16, 0}});
  const Floats input = {1, 2, 3, 4};
  net.setInput("data", input, {1, 1, 1, 4}, 1);
  net.run();  // slot 0, which keeps its own shape
  check(net.outputShape(0) == Network::Shape{1, 1, 2, 2}, "shape of slot 0");
  check(net.layerOutputShape("double", 1) == Network::Shape{1, 1, 2, 2}, "shape of slot 1, which has not run");
  refused("output", [&] { net.output(2); });
}

void moves(const std::string& model) {
  const Floats input = {1, 2, 3, 4};
  Network first(model);
  first.setInput("data", input, {1, 1, 2, 2});
  Network second(std::move(first));
  second.run();
  check(second.output()[3] == 9, "a moved network keeps its input");
  check(first.handle() == nullptr, "moved from");
  refused("initialize", [&] { first.run(); });
  refused("output", [&] { first.output(); });
  first = Network(model);
  first.setInput("data", input, {1, 1, 2, 2});  // initialises the new agent
  first.run();
  first = std::move(second);  // releases it
  check(first.output()[3] == 9, "move assignment");
}

void errors(const std::string& model) {
  refused("nowhere.cvm", [] { Network("nowhere.cvm"); });
  refused("agent", [&] { Network(model, {{CORVALITH_CPU, CORVALITH_FP32, 7}}); });
  refused("slot", [&] { Network(model, std::vector<Network::Slot>{}); });
  Network net(model);
  refused("output", [&] { net.output(); });  // not initialised yet
  const Floats three = {1, 2, 3}, four = {1, 2, 3, 4};
  refused("number of floats", [&] { net.setInput("data", three, {1, 1, 2, 2}); });
  refused("input", [&] { net.setInput("data", four, {-1, -1, 2, 2}); });
  refused("none", [&] { net.setInput("none", four, {1, 1, 2, 2}); });
  refused("none", [&] { net.inputShape("none"); });
  refused("none", [&] { net.setMaxInputShape("none", {1, 1, 2, 2}); });
  refused("none", [&] { net.layerOutput("none"); });
  refused("dump", [&] { net.dumpModelForHalfFloat("consumer.nb"); });
  net.setInput("data", four, {1, 1, 2, 2});  // none of it did harm
  net.run();
  check(net.output()[0] == 3, "output after errors");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string model = argv[1];
  outputs(model);
  slots(model);
  moves(model);
  errors(model);
  check(runOnce(model, {1}, {1, 1, 1, 1}) == Floats{3}, "the header in a second source file");
  return failures == 0 ? 0 : 1;
}
