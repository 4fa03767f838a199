/* A C application: doubles four values and adds one, by the model whose path it is given. */
#include <corvalith/corvalith.h>
#include <stdio.h>

int main(int argc, char** argv) {
  const int device = CORVALITH_CPU, type = CORVALITH_FP32, id = 0;
  float input[4] = {1, -2, 3, 0.5f}, output[4];
  int i;
  void* agent = CorvalithBuildAgent(&device, &type, &id, 1);
  if (argc != 2 || CorvalithBuildModel(agent, argv[1]) || CorvalithInitialize(agent)) return 1;
  if (CorvalithSetNetInput(agent, input, 1, 1, 2, 2, "data", 0) || CorvalithExecuteNet(agent)) return 1;
  if (CorvalithGetNetOutput(agent, output, 4, 0)) return 1;
  CorvalithRelease(&agent);
  for (i = 0; i < 4; ++i) {
    if (output[i] != 2 * input[i] + 1) return fprintf(stderr, "value %d is %g\n", i, output[i]), 1;
  }
  return 0;
}
