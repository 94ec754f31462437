/* ravu: a neural-network inference engine for classifiers and single-shot detectors.
 *
 * The whole interface is these twenty functions. Rules that hold for all of them:
 *
 * - A network is an opaque handle from ravu_create_network_private, given back with
 *   ravu_destroy_network. Every function takes a null handle: it then does nothing and returns
 *   null, false, 0 or an all-zero record.
 * - Nothing is locked. One network is used by one thread at a time; distinct networks share
 *   nothing.
 * - Sizes are in elements unless they say bytes. Images are interleaved: row after row, for each
 *   pixel its channels one after another; images of a batch follow each other.
 * - No function reports an error code. A model that cannot be loaded gives null and a line on
 *   standard error. The GPU run modes raise a C++ exception that derives from std::runtime_error;
 *   nothing else is ever thrown.
 *
 * The usual order: create; optionally set the mean; set up a run mode once; then, as often as
 * wanted, one input function, ravu_forward, output functions; destroy.
 */
#ifndef RAVU_RAVU_H
#define RAVU_RAVU_H

#include <stdbool.h>
#include <stdint.h>

#if defined(_WIN32)
#if defined(RAVU_BUILDING_LIBRARY)
#define RAVU_API __declspec(dllexport)
#else
#define RAVU_API __declspec(dllimport)
#endif
#else
#define RAVU_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A loaded network. */
typedef struct ravu_network ravu_network;

/* One image on its way into a network. */
typedef struct ravu_blob ravu_blob;

/* A look at a tensor that the network owns. It stays valid until the next forward run, shape
 * change, set-up or destruction. All zero: there is no such tensor. A tensor that has no storage
 * yet shows its dims with null data and count 0. */
typedef struct ravu_blob_view {
  float* data;      /* count floats, interleaved */
  uint32_t count;   /* elements */
  uint32_t dims[4]; /* batch, height, width, channels */
} ravu_blob_view;

/* Run modes of ravu_setup_runEngine and ravu_forward. */
enum {
  RAVU_MODE_CPU = 0,         /* processor, single precision */
  RAVU_MODE_RESERVED = 1,    /* not provided: set-up returns false */
  RAVU_MODE_GPU = 2,         /* GPU; weights leave the processor's memory after upload */
  RAVU_MODE_FIXED_POINT = 3, /* processor, 8-bit kernel library where a layer has such a form */
  RAVU_MODE_GPU_KEEP = 4     /* GPU; weights stay in the processor's memory too */
};

/* Loads a model file. channel_mean: replace the model's mean image by its average per channel.
 * batch: how many images a forward run takes, at least 1. Returns null when the file cannot be
 * loaded, after the line "Fail to parse model (PATH)" on standard error. */
RAVU_API ravu_network* ravu_create_network_private(const char* path, bool channel_mean,
                                                   uint32_t batch);

/* Always null: that source format is not read directly. */
RAVU_API ravu_network* ravu_create_network_caffe(void);

/* Writes the network to a model file. quantise: store the weights and biases of convolution and
 * fully connected layers as 8-bit values. On failure a line on standard error says so and an
 * existing file stays as it was. */
RAVU_API void ravu_save_network_to_private(ravu_network* network, const char* path, bool quantise);

/* Releases the network and everything it owns. */
RAVU_API void ravu_destroy_network(ravu_network* network);

/* Width and height, in pixels, of the images that the model wants. */
RAVU_API uint32_t ravu_get_network_inputSize(ravu_network* network);

/* Channels of those images. */
RAVU_API uint32_t ravu_get_network_inputChannels(ravu_network* network);

/* Replaces the mean image. values: height x width x channels floats of the current input, copied;
 * null installs a mean of zeros. */
RAVU_API void ravu_set_meanData(ravu_network* network, const void* values);

/* Makes an image from 8-bit pixels; stride is the distance of two rows in bytes. The pixels are
 * copied. Null for null bytes, for a zero size and when memory does not suffice. The image belongs
 * to the caller until it is handed to ravu_set_InputData. */
RAVU_API ravu_blob* ravu_create_data_blob(ravu_network* network, const uint8_t* bytes,
                                          uint32_t width, uint32_t height, uint32_t channels,
                                          int32_t stride);

/* Fills the input from n images, one per batch item, and releases every image given. Images beyond
 * the input's batch are released without being copied. The mean, if any, is subtracted here, and
 * once more by ravu_forward when the model asks for preprocessing. False for n = 0. */
RAVU_API bool ravu_set_InputData(ravu_network* network, ravu_blob** blobs, uint32_t n);

/* Fill the input from pixels, as floats or as bytes (0..255, not scaled), interleaved. Other sizes
 * than the input's reshape the network first. A zero size, null pixels, or a size for which memory
 * does not suffice leave everything as it is. The _test variant gives every batch item the first
 * image: a fixed feed for tests. */
RAVU_API void ravu_set_InputData_byRawData_float(ravu_network* network, const float* pixels,
                                                 uint32_t batch, uint32_t height, uint32_t width,
                                                 uint32_t channels);
RAVU_API void ravu_set_InputData_byRawData_byte(ravu_network* network, const uint8_t* pixels,
                                                uint32_t batch, uint32_t height, uint32_t width,
                                                uint32_t channels);
RAVU_API void ravu_set_InputData_byRawData_test(ravu_network* network, const uint8_t* pixels,
                                                uint32_t batch, uint32_t height, uint32_t width,
                                                uint32_t channels);

/* Releases the weights held in the processor's memory: useful after a GPU set-up. A processor run
 * computes nothing more afterwards. (The name is spelt as it is.) */
RAVU_API void ravu_release_netowrk_weights(ravu_network* network);

/* Prepares the network for a run mode; called once before the first forward run. False for an
 * unknown or reserved mode, and when memory does not suffice. Modes 2 and 4 raise an exception
 * when no GPU library can be loaded or the library refuses the network; they hold for the input's
 * shape of now. */
RAVU_API bool ravu_setup_runEngine(ravu_network* network, uint32_t mode);

/* Runs the network once, in the mode it was set up for, on the input given before. In modes 2 and 4
 * the last output of the last layer alone gets new values, and a failure raises an exception. */
RAVU_API void ravu_forward(ravu_network* network, uint32_t mode);

/* How many outputs the network has. */
RAVU_API int64_t ravu_getOutput_blob_num(ravu_network* network);

/* One output; all zero for an index outside 0 .. number - 1. */
RAVU_API ravu_blob_view ravu_getOutput_blob(ravu_network* network, int32_t index);

/* The label names in the model's order, owned by the network. The array is as long as the model's
 * list of labels and not terminated. */
RAVU_API char** ravu_getOutput_Labels(ravu_network* network);

/* The last output of the layer with that index in execution order; all zero for an index outside
 * the list of layers. */
RAVU_API ravu_blob_view ravu_hidden_blob(ravu_network* network, int32_t index);

/* Does nothing. */
RAVU_API void ravu_print_timeTable(ravu_network* network);

#ifdef __cplusplus
}
#endif

#endif
