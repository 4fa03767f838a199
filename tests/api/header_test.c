/* The header and the library as a C program uses them. Prints what is wrong and returns non-zero. */
#include <corvalith/corvalith.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;

static void check(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "wrong: %s\n", what);
  ++failures;
}

/* A 104-byte net descriptor, a 104-byte type header and an InputData record: the smallest model. */
static int writeModel(const char* path) {
  unsigned char model[104 + 104 + 2336 + 16];
  const unsigned layers = 1, recordSize = 2336 + 16, one = 1, specialSize = 16;
  const unsigned shape[4] = {1, 1, 2, 2};
  unsigned char* const record = model + 208;
  FILE* file;
  size_t written;
  memset(model, 0, sizeof model);
  memcpy(model, &layers, 4);
  memcpy(model + 104, &recordSize, 4);
  strcpy((char*)model + 108, "InputData");
  memcpy(record, &one, 4);
  memcpy(record + 12, &one, 4);
  memcpy(record + 16, &specialSize, 4);
  strcpy((char*)record + 136, "data");
  strcpy((char*)record + 236, "data");
  memcpy(record + 2336, shape, sizeof shape);
  file = fopen(path, "wb");
  if (file == NULL) return -1;
  written = fwrite(model, 1, sizeof model, file);
  return fclose(file) == 0 && written == sizeof model ? 0 : -1;
}

int main(void) {
  const char* path = "header_test.cvm";
  const int device = CORVALITH_CPU, type = CORVALITH_FP32, id = 0;
  float values[4] = {1, 2, 3, 4}, output[4] = {0, 0, 0, 0};
  int n = 0, c = 0, h = 0, w = 0;
  void* agent = CorvalithBuildAgent(&device, &type, &id, 1);
  check(sizeof(CORVALITH_DATATYPE) == 4 && sizeof(CORVALITH_DEVICETYPE) == 4, "32-bit enumerations");
  check(agent != NULL, "build agent");
  check(writeModel(path) == 0, "write model");
  check(CorvalithBuildModel(agent, path) == 0, "build model");
  check(CorvalithGetNetInputSize(agent, &n, &c, &h, &w, "data", 0) == 0 && n * c * h * w == 4, "input size");
  check(CorvalithSetMaxInputSize(agent, 1, 1, 2, 2, "data", 0) == 0, "maximum size");
  check(CorvalithInitialize(agent) == 0, "initialize");
  check(CorvalithSetNetInput(agent, values, 1, 1, 2, 2, "data", 0) == 0, "set input");
  check(CorvalithExecuteNet(agent) == 0, "execute");
  check(CorvalithGetNetOutputSize(agent, &n, &c, &h, &w, 0) == 0 && h == 2 && w == 2, "output size");
  check(CorvalithGetNetOutput(agent, output, 4, 0) == 0 && output[3] == 4, "output");
  check(CorvalithGetLayerOutputSize(agent, "data", &n, &c, &h, &w, 0) == 0, "layer output size");
  check(CorvalithGetLayerOutput(agent, output, 4, "data", 0) == 0, "layer output");
  check(CorvalithDumpModelForHalfFloat(agent, "header_test.dump", 0) == -1, "no half-precision dump on a CPU");
  CorvalithRelease(&agent);
  check(agent == NULL, "release");
  check(pthread_mutex_trylock(&GLOBAL_LOCK) == 0 && pthread_mutex_unlock(&GLOBAL_LOCK) == 0, "lock");
  remove(path);
  return failures == 0 ? 0 : 1;
}
