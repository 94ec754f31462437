/* Classifies one picture: hello MODEL PICTURE.ppm. The picture is a binary PPM of the size that the
 * model wants; `ravu classify` reads JPEG and PNG of any size. */
#include <ravu/ravu.h>
#include <stdio.h>
#include <stdlib.h>

/* The pixels of a binary PPM, red green blue; null when it is not one of the wanted size. */
static uint8_t* read_ppm(const char* path, uint32_t size) {
  FILE* file = fopen(path, "rb");
  unsigned width = 0, height = 0;
  const size_t bytes = (size_t)size * size * 3;
  uint8_t* pixels = malloc(bytes);
  int ok = file != NULL && pixels != NULL && fscanf(file, "P6 %u %u 255", &width, &height) == 2 &&
           width == size && height == size && fgetc(file) != EOF &&
           fread(pixels, 1, bytes, file) == bytes;
  if (file != NULL) fclose(file);
  if (ok) return pixels;
  free(pixels);
  return NULL;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: hello MODEL PICTURE.ppm\n");
    return 2;
  }
  ravu_network* network = ravu_create_network_private(argv[1], false, 1);
  if (network == NULL) return 1; /* it has said why */
  const uint32_t size = ravu_get_network_inputSize(network);
  uint8_t* pixels = read_ppm(argv[2], size);
  if (pixels == NULL) {
    fprintf(stderr, "hello: %s is no binary PPM of %u x %u pixels\n", argv[2], size, size);
    ravu_destroy_network(network);
    return 1;
  }

  ravu_setup_runEngine(network, RAVU_MODE_CPU);
  ravu_set_InputData_byRawData_byte(network, pixels, 1, size, size, 3);
  ravu_forward(network, RAVU_MODE_CPU);

  const ravu_blob_view scores = ravu_getOutput_blob(network, 0);
  uint32_t best = 0;
  for (uint32_t i = 1; i < scores.count; ++i) {
    if (scores.data[i] > scores.data[best]) best = i;
  }
  printf("%s %.4f\n", ravu_getOutput_Labels(network)[best], scores.data[best]);

  free(pixels);
  ravu_destroy_network(network);
  return 0;
}
