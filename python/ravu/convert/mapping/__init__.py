"""From operators to layers: one function per operator, looked up by its name."""

from __future__ import annotations

from collections.abc import Callable

from . import detection, elementwise, normalise, pooling, shapes, weights
from .context import Context

OPERATORS: dict[str, Callable[[Context], None]] = {
    "Abs": elementwise.absolute,
    "Add": elementwise.add,
    "AveragePool": pooling.average_pool,
    "BatchNormalization": weights.batch_norm,
    "Cast": elementwise.cast,
    "Clip": elementwise.clip,
    "Concat": shapes.concat,
    "Conv": weights.conv,
    "DetectionOutput": detection.detection_output,
    "Div": elementwise.divide,
    "Dropout": elementwise.dropout,
    "Flatten": shapes.relabel,
    "Gather": shapes.gather,
    "Gemm": weights.gemm,
    "GlobalAveragePool": pooling.global_average,
    "GlobalMaxPool": pooling.global_max,
    "HardSigmoid": elementwise.hard_sigmoid,
    "Identity": elementwise.identity,
    "LRN": normalise.lrn,
    "LeakyRelu": elementwise.leaky_relu,
    "LpNormalization": normalise.l2_normalise,
    "MatMul": weights.matmul,
    "Max": elementwise.maximum,
    "MaxPool": pooling.max_pool,
    "Min": elementwise.minimum,
    "Mul": elementwise.multiply,
    "Neg": elementwise.negative,
    "PRelu": elementwise.prelu,
    "Pad": shapes.pad,
    "Pow": elementwise.power,
    "Reciprocal": elementwise.reciprocal,
    "PriorBox": detection.prior_box,
    "ReduceMax": pooling.reduce_max,
    "ReduceMean": pooling.reduce_mean,
    "Relu": elementwise.relu,
    "Reshape": shapes.relabel,
    "Slice": shapes.slice_,
    "Softmax": normalise.softmax,
    "Split": shapes.split,
    "Sqrt": elementwise.square_root,
    "Squeeze": shapes.relabel,
    "Sub": elementwise.subtract,
    "Sum": elementwise.add,
    "Transpose": shapes.transpose,
    "Unsqueeze": shapes.relabel,
}

__all__ = ["OPERATORS", "Context"]
