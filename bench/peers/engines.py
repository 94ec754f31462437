"""How each engine opens a network and runs it: one function per engine.

Each takes the folder that prepare.py filled, the network's key, a number of threads and a batch of
images (batch, channels, rows, columns), and returns a function that brings these images in, runs
the network and brings its outputs out in the graph's order, and the engine's version. All are set
to single precision, to their own best optimisation, and to exactly that many threads.
"""

from __future__ import annotations

import os
from collections.abc import Callable
from pathlib import Path

import numpy as np

Run = Callable[[], list[np.ndarray]]
Opened = tuple[Run, str]


def open_ravu(folder: Path, network: str, threads: int, images: np.ndarray) -> Opened:
    """Channels are innermost here. The BLAS library's thread count, which is the engine's too,
    comes from the environment."""
    from ravu import Network

    engine = Network(folder / "model.ravu", batch=len(images))
    engine.set_up()
    pixels = np.ascontiguousarray(images.transpose(0, 2, 3, 1))
    return lambda: engine.run(pixels), os.environ["RAVU_COMMIT"]


def open_onnxruntime(folder: Path, network: str, threads: int, images: np.ndarray) -> Opened:
    import onnxruntime

    options = onnxruntime.SessionOptions()
    options.graph_optimization_level = onnxruntime.GraphOptimizationLevel.ORT_ENABLE_ALL
    options.intra_op_num_threads = threads
    options.inter_op_num_threads = 1
    session = onnxruntime.InferenceSession(
        str(folder / f"batch{len(images)}.onnx"), options, providers=["CPUExecutionProvider"]
    )
    return lambda: session.run(None, {"data": images}), onnxruntime.__version__


def open_openvino(folder: Path, network: str, threads: int, images: np.ndarray) -> Opened:
    import openvino

    model = openvino.Core().compile_model(
        str(folder / f"batch{len(images)}.onnx"),
        "CPU",
        {
            "PERFORMANCE_HINT": "LATENCY",
            "INFERENCE_NUM_THREADS": str(threads),
            "INFERENCE_PRECISION_HINT": "f32",
            "ENABLE_CPU_PINNING": "NO",
        },
    )
    request = model.create_infer_request()

    def run() -> list[np.ndarray]:
        request.infer([images], share_inputs=True)
        return [request.get_output_tensor(i).data for i in range(len(model.outputs))]

    return run, openvino.__version__.split("-")[0]


def open_ncnn(folder: Path, network: str, threads: int, images: np.ndarray) -> Opened:
    """It has no batches: images are run one after another."""
    import ncnn
    from networks import NETWORKS

    net = ncnn.Net()
    options = net.opt
    options.num_threads = threads
    options.lightmode = True
    for name in ("use_fp16_packed", "use_fp16_storage", "use_fp16_arithmetic", "use_bf16_storage"):
        setattr(options, name, False)
    if net.load_param(str(folder / "model.param")) or net.load_model(str(folder / "model.bin")):
        raise RuntimeError("the files were refused")
    outputs = NETWORKS[network][1]().outputs

    def run_image(image: np.ndarray) -> list[np.ndarray]:
        extractor = net.create_extractor()
        extractor.input("data", ncnn.Mat(image))
        return [np.array(extractor.extract(name)[1]) for name in outputs]

    def run() -> list[np.ndarray]:
        return [np.stack(each) for each in zip(*(run_image(image) for image in images))]

    return run, ncnn.__version__


def open_opencv(folder: Path, network: str, threads: int, images: np.ndarray) -> Opened:
    import cv2

    cv2.setNumThreads(threads)
    net = cv2.dnn.readNetFromONNX(str(folder / f"batch{len(images)}.onnx"))
    names = net.getUnconnectedOutLayersNames()

    def run() -> list[np.ndarray]:
        net.setInput(images)
        return list(net.forward(names))

    return run, cv2.__version__


def open_torch(folder: Path, network: str, threads: int, images: np.ndarray) -> Opened:
    import torch
    from torch_module import memory_format, traced_module

    torch.set_num_threads(threads)
    module = traced_module(folder, network, len(images))
    pixels = torch.from_numpy(images).to(memory_format=memory_format(network))

    def run() -> list[np.ndarray]:
        with torch.inference_mode():
            return [output.numpy() for output in module(pixels)]

    return run, torch.__version__


ENGINES: dict[str, tuple[str, Callable[[Path, str, int, np.ndarray], Opened]]] = {
    "ravu": ("ravu", open_ravu),
    "onnxruntime": ("ONNX Runtime", open_onnxruntime),
    "openvino": ("OpenVINO", open_openvino),
    "ncnn": ("ncnn", open_ncnn),
    "opencv": ("OpenCV", open_opencv),
    "torch": ("torch", open_torch),
}
