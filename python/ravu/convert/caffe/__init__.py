"""Caffe models: a network description (prototxt) and its weights (caffemodel)."""

from .reading import CaffeModel, load_caffe, read_caffe, read_mean

__all__ = ["CaffeModel", "load_caffe", "read_caffe", "read_mean"]
