/* The least program that runs a network: zeros in, the first values of the output out. Usage: minimal MODEL.cvm INPUT
 */
#include <corvalith/corvalith.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  if (argc != 3) return fprintf(stderr, "usage: minimal MODEL.cvm INPUT\n"), 2;
  int device = CORVALITH_CPU, type = CORVALITH_FP32, id = 0, n, c, h, w;
  void* agent = CorvalithBuildAgent(&device, &type, &id, 1);
  if (CorvalithBuildModel(agent, argv[1]) || CorvalithInitialize(agent)) return 1; /* the log says why */
  if (CorvalithGetNetInputSize(agent, &n, &c, &h, &w, argv[2], 0)) return 1;
  float* input = calloc((size_t)n * c * h * w, sizeof *input);
  if (CorvalithSetNetInput(agent, input, n, c, h, w, argv[2], 0) || CorvalithExecuteNet(agent)) return 1;
  if (CorvalithGetNetOutputSize(agent, &n, &c, &h, &w, 0)) return 1;
  float* output = malloc((size_t)n * c * h * w * sizeof *output);
  if (CorvalithGetNetOutput(agent, output, n * c * h * w, 0)) return 1;
  printf("%d x %d x %d x %d values, the first %g\n", n, c, h, w, output[0]);
  CorvalithRelease(&agent);
  free(output);
  free(input);
  return 0;
}
