// The header once more in the same program.
#include <corvalith/corvalith.hpp>

std::vector<float> runOnce(const std::string& model, const std::vector<float>& input,
                           const corvalith::Network::Shape& shape) {
  corvalith::Network net(model);
  net.setInput("data", input, shape);
  net.run();
  return net.output();
}
