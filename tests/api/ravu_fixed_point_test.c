/* The shared library in run mode 3: it finds the fixed-point library beside itself.
   usage: ravu_fixed_point_test MODEL, which write_test_model wrote */
#include <math.h>
#include <stdio.h>

#include "ravu/ravu.h"

int main(int argc, char** argv) {
  const float image[4] = {1, -2, 3, -4};
  ravu_network* network = argc == 2 ? ravu_create_network_private(argv[1], false, 1) : NULL;
  if (network == NULL || !ravu_setup_runEngine(network, RAVU_MODE_FIXED_POINT)) {
    fputs("the model cannot be set up\n", stderr);
    return 1;
  }
  ravu_set_InputData_byRawData_float(network, image, 1, 2, 2, 1);
  ravu_forward(network, RAVU_MODE_FIXED_POINT);
  const ravu_blob_view scores = ravu_getOutput_blob(network, 0);
  /* The greatest pixel, 3, becomes 3 + 1 and 2 x 3 + 5; without the library both stay 0. */
  const int right =
      scores.count == 2 && fabsf(scores.data[0] - 4) < 0.1F && fabsf(scores.data[1] - 11) < 0.2F;
  if (!right) fprintf(stderr, "scores %g %g\n", (double)scores.data[0], (double)scores.data[1]);
  ravu_destroy_network(network);
  return right ? 0 : 1;
}
