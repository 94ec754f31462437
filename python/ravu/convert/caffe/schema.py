"""The messages of Caffe's files, as far as running a trained network needs them.

Declared here instead of in a .proto file, so that nothing has to be compiled; parsing is the
protobuf package's. Numbers matter in binary files only, that is for names, types and blobs.
"""

from __future__ import annotations

from google.protobuf import descriptor_pb2, descriptor_pool, message_factory

_Field = descriptor_pb2.FieldDescriptorProto
_SCALARS = {
    "string": _Field.TYPE_STRING,
    "int": _Field.TYPE_INT64,
    "uint": _Field.TYPE_UINT32,
    "float": _Field.TYPE_FLOAT,
    "double": _Field.TYPE_DOUBLE,
    "bool": _Field.TYPE_BOOL,
}

# The layer types of the old form, by number from 0.
V1_TYPES = (
    "NONE ACCURACY BNLL CONCAT CONVOLUTION DATA DROPOUT EUCLIDEAN_LOSS FLATTEN HDF5_DATA "
    "HDF5_OUTPUT IM2COL IMAGE_DATA INFOGAIN_LOSS INNER_PRODUCT LRN MULTINOMIAL_LOGISTIC_LOSS "
    "POOLING RELU SIGMOID SOFTMAX SOFTMAX_LOSS SPLIT TANH WINDOW_DATA ELTWISE POWER "
    "SIGMOID_CROSS_ENTROPY_LOSS HINGE_LOSS MEMORY_DATA ARGMAX THRESHOLD DUMMY_DATA SLICE MVN "
    "ABSVAL SILENCE CONTRASTIVE_LOSS EXP DECONVOLUTION"
).split()

_ENUMS = {
    "V1Type": dict(zip(V1_TYPES, range(len(V1_TYPES)))),
    "Phase": {"TRAIN": 0, "TEST": 1},
    "PoolMethod": {"MAX": 0, "AVE": 1, "STOCHASTIC": 2},
    "RoundMode": {"CEIL": 0, "FLOOR": 1},
    "EltwiseOp": {"PROD": 0, "SUM": 1, "MAX": 2},
    "NormRegion": {"ACROSS_CHANNELS": 0, "WITHIN_CHANNEL": 1},
    "CodeType": {"CORNER": 1, "CENTER_SIZE": 2, "CORNER_SIZE": 3},
    "Engine": {"DEFAULT": 0, "CAFFE": 1, "CUDNN": 2},
}

# Fields: name, number, type; * repeated, + repeated and packed, = default.
_PARAMETERS = """
concat_param      ConcatParameter          104   9  axis 2 int =1; concat_dim 1 uint
convolution_param ConvolutionParameter     106  10  num_output 1 uint; bias_term 2 bool =true;\
 pad 3 uint *; kernel_size 4 uint *; stride 6 uint *; dilation 18 uint *; pad_h 9 uint;\
 pad_w 10 uint; kernel_h 11 uint; kernel_w 12 uint; stride_h 13 uint; stride_w 14 uint;\
 group 5 uint =1; engine 15 Engine; axis 16 int =1
dropout_param     DropoutParameter         108  12  dropout_ratio 1 float
eltwise_param     EltwiseParameter         110  24  operation 1 EltwiseOp =SUM; coeff 2 float *
inner_product_param InnerProductParameter  117  17  num_output 1 uint; bias_term 2 bool =true;\
 axis 5 int =1; transpose 6 bool =false
lrn_param         LRNParameter             118  18  local_size 1 uint =5; alpha 2 float =1;\
 beta 3 float =0.75; norm_region 4 NormRegion; k 5 float =1
pooling_param     PoolingParameter         121  19  pool 1 PoolMethod; pad 4 uint; pad_h 9 uint;\
 pad_w 10 uint; kernel_size 2 uint; kernel_h 5 uint; kernel_w 6 uint; stride 3 uint;\
 stride_h 7 uint; stride_w 8 uint; engine 11 Engine; global_pooling 12 bool =false;\
 round_mode 13 RoundMode
power_param       PowerParameter           122  21  power 1 float =1; scale 2 float =1;\
 shift 3 float =0
relu_param        ReLUParameter            123  30  negative_slope 1 float =0; engine 2 Engine
softmax_param     SoftmaxParameter         125  39  engine 1 Engine; axis 2 int =1
slice_param       SliceParameter           126  31  axis 3 int =1; slice_point 2 uint *;\
 slice_dim 1 uint
prelu_param       PReLUParameter           131   0  channel_shared 2 bool =false
reshape_param     ReshapeParameter         133   0  shape 1 BlobShape; axis 2 int =0;\
 num_axes 3 int =-1
flatten_param     FlattenParameter         135   0  axis 1 int =1; end_axis 2 int =-1
batch_norm_param  BatchNormParameter       139   0  use_global_stats 1 bool; eps 3 float =0.00001;\
 moving_average_fraction 2 float
bias_param        BiasParameter            141   0  axis 1 int =1; num_axes 2 int =1
scale_param       ScaleParameter           142   0  axis 1 int =1; num_axes 2 int =1;\
 bias_term 4 bool =false
input_param       InputParameter           143   0  shape 1 BlobShape *
permute_param     PermuteParameter         202   0  order 1 uint *
prior_box_param   PriorBoxParameter        203   0  min_size 1 float *; max_size 2 float *;\
 aspect_ratio 3 float *; flip 4 bool =true; clip 5 bool =false; variance 6 float *;\
 img_size 7 uint; img_h 8 uint; img_w 9 uint; step 10 float; step_h 11 float; step_w 12 float;\
 offset 13 float =0.5
detection_output_param DetectionOutputParameter 204 0 num_classes 1 uint;\
 share_location 2 bool =true; background_label_id 3 int =0; nms_param 4 NmsParameter;\
 code_type 6 CodeType =CORNER; variance_encoded_in_target 8 bool =false; keep_top_k 7 int =-1;\
 confidence_threshold 9 float
norm_param        NormalizeParameter       206   0  across_spatial 1 bool =true;\
 channel_shared 3 bool =true; eps 4 float =1e-10
"""

_MESSAGES = {
    "BlobShape": "dim 1 int +",
    "BlobProto": "num 1 uint; channels 2 uint; height 3 uint; width 4 uint; data 5 float +;"
    " shape 7 BlobShape; double_data 8 double +",
    "NmsParameter": "nms_threshold 1 float =0.3; top_k 2 int; eta 3 float =1",
    "NetStateRule": "phase 1 Phase; stage 4 string *; not_stage 5 string *",
    "NetParameter": "name 1 string; layers 2 V1LayerParameter *; input 3 string *;"
    " input_dim 4 int *; input_shape 8 BlobShape *; layer 100 LayerParameter *",
}
_LAYER = (
    "name 1 string; type 2 string; bottom 3 string *; top 4 string *; blobs 7 BlobProto *;"
    " include 8 NetStateRule *; exclude 9 NetStateRule *; phase 10 Phase"
)
_V1_LAYER = (
    "bottom 2 string *; top 3 string *; name 4 string; type 5 V1Type; blobs 6 BlobProto *;"
    " include 32 NetStateRule *; exclude 33 NetStateRule *"
)


def _messages() -> dict[str, str]:
    """All messages by name, the layers with a field for each parameter message."""
    found = dict(_MESSAGES)
    layer, v1_layer = [_LAYER], [_V1_LAYER]
    for line in _PARAMETERS.strip().split("\n"):
        field, message, number, v1_number, fields = line.split(None, 4)
        found[message] = fields
        layer.append(f"{field} {number} {message}")
        if v1_number != "0":
            v1_layer.append(f"{field} {v1_number} {message}")
    found["LayerParameter"] = "; ".join(layer)
    found["V1LayerParameter"] = "; ".join(v1_layer)
    return found


def _add_field(message: descriptor_pb2.DescriptorProto, text: str) -> None:
    name, number, kind, *rest = text.split()
    field = message.field.add(name=name, number=int(number), label=_Field.LABEL_OPTIONAL)
    if rest and rest[0] in ("*", "+"):
        field.label = _Field.LABEL_REPEATED
        field.options.packed = rest[0] == "+"
    elif rest:
        field.default_value = rest[0][1:]
    if kind in _SCALARS:
        field.type = _SCALARS[kind]
    else:
        is_enum = kind in _ENUMS
        field.type = _Field.TYPE_ENUM if is_enum else _Field.TYPE_MESSAGE
        field.type_name = f".ravu_caffe.{kind}Scope.{kind}" if is_enum else f".ravu_caffe.{kind}"


def _file() -> descriptor_pb2.FileDescriptorProto:
    file = descriptor_pb2.FileDescriptorProto(name="ravu_caffe.proto", package="ravu_caffe")
    for name, values in _ENUMS.items():
        # Labels share the scope around their enumeration, so each has a message to itself.
        enum = file.message_type.add(name=name + "Scope").enum_type.add(name=name)
        for label, number in values.items():
            enum.value.add(name=label, number=number)
    for name, fields in _messages().items():
        message = file.message_type.add(name=name)
        for field in fields.split(";"):
            _add_field(message, field)
    return file


_pool = descriptor_pool.DescriptorPool()
_pool.Add(_file())
NetParameter = message_factory.GetMessageClass(
    _pool.FindMessageTypeByName("ravu_caffe.NetParameter")
)
BlobProto = message_factory.GetMessageClass(_pool.FindMessageTypeByName("ravu_caffe.BlobProto"))
