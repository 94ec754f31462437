# The program of all unit tests; its files mirror src/.
add_executable(ravu_tests
  api/exports_test.cpp
  api/input_test.cpp
  api/raw_input_test.cpp
  api/run_modes_test.cpp
  fakes/fake_fixpoint.cpp
  fakes/FakeCldnn.cpp
  fakes/fake_descriptors.cpp
  graph/BaseLayer_test.cpp
  graph/Blob_test.cpp
  graph/Workspace_test.cpp
  graph/cldnn_library_test.cpp
  graph/cpu_backend_test.cpp
  graph/dynamic_library_test.cpp
  graph/fixed_point_library_test.cpp
  graph/fusion_test.cpp
  graph/gpu_backend_test.cpp
  graph/gpu_failure_test.cpp
  graph/ravuGraph_test.cpp
  kernels/boxes_test.cpp
  kernels/channels_test.cpp
  kernels/conv_forms_test.cpp
  kernels/convert_test.cpp
  kernels/element_steps_test.cpp
  kernels/elementwise_test.cpp
  kernels/fully_connected_test.cpp
  kernels/lrn_test.cpp
  kernels/normalize_test.cpp
  kernels/permute_test.cpp
  kernels/pooling_test.cpp
  kernels/transpose_test.cpp
  kernels/workers_test.cpp
  layers/BatchNormLayer_test.cpp
  layers/ConcatLayer_test.cpp
  layers/ConvLayer_fixed_point_test.cpp
  layers/ConvLayer_test.cpp
  layers/CropLayer_test.cpp
  layers/DetectionOutputLayer_test.cpp
  layers/EltWiseLayer_test.cpp
  layers/FlattenLayer_test.cpp
  layers/FullyConnectLayer_fixed_point_test.cpp
  layers/FullyConnectLayer_test.cpp
  layers/LrnLayer_test.cpp
  layers/NormalizeLayer_test.cpp
  layers/PReluLayer_test.cpp
  layers/PermuteLayer_test.cpp
  layers/PoolingLayer_test.cpp
  layers/PowerLayer_test.cpp
  layers/PriorBoxLayer_test.cpp
  layers/ReluLayer_test.cpp
  layers/ReshapeLayer_test.cpp
  layers/ScaleLayer_test.cpp
  layers/SoftmaxLayer_test.cpp
  layers/gpu_detector_primitives_test.cpp
  layers/gpu_primitives_test.cpp
  model/corruption_test.cpp
  model/documented_example_test.cpp
  model/layer_table_test.cpp
  model/network_reader_test.cpp
  model/network_writer_test.cpp
  model/record_test.cpp
  model/records/BatchNormRecord_test.cpp
  model/records/ConcatRecord_test.cpp
  model/records/ConvRecord_test.cpp
  model/records/DetectionOutputRecord_test.cpp
  model/records/EltWiseRecord_test.cpp
  model/records/FlattenRecord_test.cpp
  model/records/FullyConnectRecord_test.cpp
  model/records/LrnRecord_test.cpp
  model/records/NormalizeRecord_test.cpp
  model/records/PReluRecord_test.cpp
  model/records/PermuteRecord_test.cpp
  model/records/PoolingRecord_test.cpp
  model/records/PowerRecord_test.cpp
  model/records/PriorBoxRecord_test.cpp
  model/records/ReluRecord_test.cpp
  model/records/ReshapeRecord_test.cpp
  model/records/ScaleRecord_test.cpp
  model/tag_reader_test.cpp
  model/tag_writer_test.cpp
  model/tensor_record_test.cpp
  model/tensor_writer_test.cpp
  model/wiring_test.cpp
  networks/networks.cpp
  networks/shape_changes_test.cpp
  networks/whole_networks_test.cpp
  support/ModelBuilder.cpp
  support/blobs.cpp
  support/exercise.cpp
  support/handles.cpp
  support/models.cpp
  support/naive_network.cpp
  support/records.cpp
  support/reference_activations.cpp
  support/reference_boxes.cpp
  support/reference_channelwise.cpp
  support/reference_lrn.cpp
  support/reference_normalize.cpp
  support/reference_pooling.cpp
  support/reference_products.cpp
  support/reference_shapes.cpp
  support/sanitizer_options.cpp
  support/small_models.cpp
)
target_include_directories(ravu_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
if(RAVU_BUILD_FIXPOINT)
  target_sources(ravu_tests PRIVATE networks/fixed_point_test.cpp)
  target_compile_definitions(ravu_tests PRIVATE
    RAVU_FIXPOINT_LIBRARY="$<TARGET_FILE:ravu_fixpoint>")
  add_dependencies(ravu_tests ravu_fixpoint)
  if(RAVU_SANITIZE)
    # Loaded at run time, its thread-local variables crash the leak check.
    target_link_libraries(ravu_tests PRIVATE -Wl,--no-as-needed ${DNNL_LIBRARY})
  endif()
  # Damaged models meet the real library too.
  set_target_properties(ravu_tests PROPERTIES BUILD_RPATH ${PROJECT_BINARY_DIR}/src)
endif()
target_compile_definitions(ravu_tests PRIVATE RAVU_DOCS_FOLDER="${PROJECT_SOURCE_DIR}/docs")
target_link_libraries(ravu_tests PRIVATE ravu_core GTest::gmock GTest::gtest_main
  PkgConfig::HWY)
target_precompile_headers(ravu_tests PRIVATE <gmock/gmock.h> <gtest/gtest.h>)
add_gtests(ravu_tests)
