// Writes the consumers' model: y = 2 x + 1 on an input "data" of 1 x 1 x 2 x 2.
#include <fstream>

#include "tools/common/model_writer.h"

int main(int argc, char** argv) {
  using namespace corvalith;
  if (argc != 2) return 2;
  tools::ModelLayer data{"InputData", "data", {"data"}, {}, {}, {}, {}};
  tools::ModelLayer twice{"Power", "double", {"double"}, {"data"}, {}, {}, {}};
  const std::vector<char> model =
      tools::modelBytes("double", {data.setSpecial(InputDataParam{1, 1, 2, 2}), twice.setSpecial(PowerParam{1, 2, 1})});
  std::ofstream file(argv[1], std::ios::binary);
  file.write(model.data(), static_cast<std::streamsize>(model.size()));
  return file.flush() ? 0 : 1;
}
