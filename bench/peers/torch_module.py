"""A graph as a torch module, traced and frozen, with the weights of prepare.py's file.

`torch.jit.optimize_for_inference` made none of the networks faster and is left out.
"""

from __future__ import annotations

from pathlib import Path

import numpy as np
import torch
from graph import Graph, Node
from networks import NETWORKS
from torch import nn
from torch.nn import functional

CHANNELS_INNERMOST = {"googlenet", "squeezenet"}
"""The networks that are faster with this order in memory."""


def memory_format(network: str) -> torch.memory_format:
    return torch.channels_last if network in CHANNELS_INNERMOST else torch.contiguous_format


def traced_module(folder: Path, network: str, batch: int) -> torch.jit.ScriptModule:
    """Takes images in torch's usual order of axes and in `memory_format`."""
    order = memory_format(network)
    graph = NETWORKS[network][1]()
    module = GraphModule(graph, np.load(folder / "weights.npz")).eval()
    module = module.to(memory_format=order)
    images = torch.zeros(batch, *graph.shapes["data"]).to(memory_format=order)
    with torch.inference_mode():
        return torch.jit.freeze(torch.jit.trace(module, images, check_trace=False))


class GraphModule(nn.Module):
    def __init__(self, graph: Graph, weights: np.lib.npyio.NpzFile) -> None:
        super().__init__()
        self.graph = graph
        self.values = nn.ParameterDict(
            {
                name.replace(".", "_"): nn.Parameter(torch.from_numpy(weights[name]), False)
                for name in weights.files
            }
        )

    def forward(self, images: torch.Tensor) -> tuple[torch.Tensor, ...]:
        tensors = {"data": images}
        for node in self.graph.nodes:
            inputs = [tensors[name] for name in node.inputs]
            tensors[node.name] = getattr(self, "_" + node.kind)(node, *inputs)
        return tuple(tensors[name] for name in self.graph.outputs)

    def _weights(self, node: Node) -> tuple[torch.Tensor, torch.Tensor]:
        return self.values[node.name + "_weight"], self.values[node.name + "_bias"]

    def _conv(self, node: Node, x: torch.Tensor) -> torch.Tensor:
        a = node.attributes
        x = functional.conv2d(
            x, *self._weights(node), a["stride"], a["pad"], a["dilation"], a["groups"]
        )
        return functional.relu(x) if a["relu"] else x

    def _dense(self, node: Node, x: torch.Tensor) -> torch.Tensor:
        x = functional.linear(torch.flatten(x, 1), *self._weights(node))
        x = functional.relu(x) if node.attributes["relu"] else x
        return x.unflatten(1, (-1, 1, 1))

    def _max_pool(self, node: Node, x: torch.Tensor) -> torch.Tensor:
        a = node.attributes
        return functional.max_pool2d(x, a["size"], a["stride"], a["pad"], ceil_mode=True)

    def _mean(self, _: Node, x: torch.Tensor) -> torch.Tensor:
        return functional.adaptive_avg_pool2d(x, 1)

    def _lrn(self, node: Node, x: torch.Tensor) -> torch.Tensor:
        a = node.attributes
        return functional.local_response_norm(x, a["size"], a["alpha"], a["beta"], a["k"])

    def _normalize(self, node: Node, x: torch.Tensor) -> torch.Tensor:
        return functional.normalize(x) * node.attributes["scale"]

    def _add(self, _: Node, x: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
        return functional.relu(x + y)

    def _concat(self, _: Node, *xs: torch.Tensor) -> torch.Tensor:
        return torch.cat(xs, 1)

    def _softmax(self, node: Node, x: torch.Tensor) -> torch.Tensor:
        return torch.softmax(x, 2 if len(node.shape) == 2 else 1)

    def _rows(self, node: Node, *xs: torch.Tensor) -> torch.Tensor:
        values = node.attributes["values"]
        tables = [x.permute(0, 2, 3, 1).reshape(x.shape[0], -1, values) for x in xs]
        return torch.cat(tables, 1)
