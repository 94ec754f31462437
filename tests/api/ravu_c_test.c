/* The interface as a C program sees it: every function with a null handle first, then a network.
 * Linked with the shared library alone; takes the path of a model written by write_test_model. */
#include <stdio.h>
#include <string.h>

#include "ravu/ravu.h"

static int failures = 0;

#define CHECK(condition)                                              \
  do {                                                                \
    if (!(condition)) {                                               \
      ++failures;                                                     \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
    }                                                                 \
  } while (0)

static bool is_all_zero(ravu_blob_view view) {
  return view.data == NULL && view.count == 0 && view.dims[0] == 0 && view.dims[1] == 0 &&
         view.dims[2] == 0 && view.dims[3] == 0;
}

static bool shows(ravu_blob_view view, uint32_t batch, const float* values, uint32_t count) {
  return view.data != NULL && view.count == count && view.dims[0] == batch &&
         memcmp(view.data, values, count * sizeof(float)) == 0;
}

static void every_function_answers_null(void) {
  const float values[4] = {1, 2, 3, 4};
  const uint8_t bytes[4] = {1, 2, 3, 4};
  ravu_blob* blobs[1] = {NULL};
  CHECK(ravu_create_network_private(NULL, false, 1) == NULL);
  CHECK(ravu_create_network_caffe() == NULL);
  ravu_save_network_to_private(NULL, "nowhere", false);
  ravu_destroy_network(NULL);
  CHECK(ravu_get_network_inputSize(NULL) == 0);
  CHECK(ravu_get_network_inputChannels(NULL) == 0);
  ravu_set_meanData(NULL, values);
  CHECK(ravu_create_data_blob(NULL, bytes, 2, 2, 1, 2) == NULL);
  CHECK(!ravu_set_InputData(NULL, blobs, 1));
  ravu_set_InputData_byRawData_float(NULL, values, 1, 2, 2, 1);
  ravu_set_InputData_byRawData_byte(NULL, bytes, 1, 2, 2, 1);
  ravu_set_InputData_byRawData_test(NULL, bytes, 1, 2, 2, 1);
  ravu_release_netowrk_weights(NULL);
  for (uint32_t mode = 0; mode <= 5; ++mode) {
    CHECK(!ravu_setup_runEngine(NULL, mode));
    ravu_forward(NULL, mode);
  }
  CHECK(ravu_getOutput_blob_num(NULL) == 0);
  CHECK(is_all_zero(ravu_getOutput_blob(NULL, 0)));
  CHECK(ravu_getOutput_Labels(NULL) == NULL);
  CHECK(is_all_zero(ravu_hidden_blob(NULL, 0)));
  ravu_print_timeTable(NULL);
}

/* The model: rectifier, the greatest of the four pixels p, scores p + 1 and 2p + 5. */
static void a_network_runs(ravu_network* network) {
  const float floats[4] = {1, 2, -3, 0.5F};
  const float scores[2] = {3, 9};
  ravu_set_InputData_byRawData_float(network, floats, 1, 2, 2, 1);
  ravu_forward(network, RAVU_MODE_CPU);
  CHECK(shows(ravu_getOutput_blob(network, 0), 1, scores, 2));

  const uint8_t bytes[8] = {1, 2, 3, 4, 255, 0, 0, 0};
  const float byte_scores[4] = {5, 13, 256, 515};
  ravu_set_InputData_byRawData_byte(network, bytes, 2, 2, 2, 1);
  ravu_forward(network, RAVU_MODE_CPU);
  CHECK(shows(ravu_getOutput_blob(network, 0), 2, byte_scores, 4));

  const float test_scores[4] = {5, 13, 5, 13};
  ravu_set_InputData_byRawData_test(network, bytes, 2, 2, 2, 1);
  ravu_forward(network, RAVU_MODE_CPU);
  CHECK(shows(ravu_getOutput_blob(network, 0), 2, test_scores, 4));
}

static void images_lose_the_mean(ravu_network* network) {
  const uint8_t padded_rows[6] = {10, 20, 99, 30, 40, 99};
  const float mean[4] = {1, 1, 1, 1};
  /* Once when the image is handed in, once more when the network runs. */
  const float scores[4] = {39, 81, 39, 81};
  ravu_blob* images[3];
  ravu_set_meanData(network, mean);
  for (int i = 0; i < 3; ++i) {
    images[i] = ravu_create_data_blob(network, padded_rows, 2, 2, 1, 3);
    CHECK(images[i] != NULL);
  }
  CHECK(ravu_set_InputData(network, images, 3)); /* the third is beyond the batch */
  ravu_forward(network, RAVU_MODE_CPU);
  CHECK(shows(ravu_getOutput_blob(network, 0), 2, scores, 4));
  ravu_set_meanData(network, NULL);
}

static void everything_else(ravu_network* network) {
  char** labels = ravu_getOutput_Labels(network);
  CHECK(strcmp(labels[0], "cat") == 0 && strcmp(labels[1], "dog") == 0);
  CHECK(ravu_get_network_inputSize(network) == 2);
  CHECK(ravu_get_network_inputChannels(network) == 1);
  CHECK(ravu_getOutput_blob_num(network) == 1);
  CHECK(is_all_zero(ravu_getOutput_blob(network, -1)));
  CHECK(is_all_zero(ravu_getOutput_blob(network, 1)));
  CHECK(ravu_hidden_blob(network, 2).data == ravu_getOutput_blob(network, 0).data);
  CHECK(is_all_zero(ravu_hidden_blob(network, 3)));
  CHECK(!ravu_setup_runEngine(network, RAVU_MODE_RESERVED));
  CHECK(!ravu_setup_runEngine(network, 5));
  ravu_print_timeTable(network);
  ravu_release_netowrk_weights(network);
  ravu_forward(network, RAVU_MODE_CPU);
  ravu_save_network_to_private(network, "no/such/folder/model", true);
}

int main(int argc, char** argv) {
  every_function_answers_null();
  if (argc != 2) {
    fputs("usage: ravu_c_test MODEL\n", stderr);
    return 2;
  }
  ravu_network* network = ravu_create_network_private(argv[1], false, 1);
  CHECK(network != NULL);
  if (network == NULL) return 1;
  CHECK(ravu_setup_runEngine(network, RAVU_MODE_CPU));
  a_network_runs(network);
  images_lose_the_mean(network);
  everything_else(network);
  ravu_destroy_network(network);
  return failures == 0 ? 0 : 1;
}
