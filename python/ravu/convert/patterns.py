"""Several operators of the source that together are one of ours."""

from __future__ import annotations

import numpy as np

from .graph import Graph, Node

# What may stand between a norm and the division by it, without changing it in practice.
_PASSED = frozenset({"Clip", "Expand", "Identity", "Max"})


def recognise(graph: Graph) -> None:
    """Replace x / max(|x|, small) by LpNormalization, and drop what nothing needs any more."""
    writers = {name: node for node in graph.nodes for name in node.outputs}
    for node in graph.nodes:
        if node.op != "Div":
            continue
        norm = writers.get(node.inputs[1])
        while norm is not None and norm.op in _PASSED:
            norm = writers.get(_computed_input(graph, norm))
        if norm is not None and norm.op == "ReduceL2" and norm.inputs[0] == node.inputs[0]:
            axes = _axes(graph, norm)
            if axes is not None and len(axes) == 1 and norm.get("keepdims", 1):
                node.op, node.inputs = "LpNormalization", node.inputs[:1]
                node.attributes = {"axis": int(axes[0]), "p": 2}
    graph.without_dead_ends()


def _computed_input(graph: Graph, node: Node) -> str:
    computed = [name for name in node.inputs if name and name not in graph.constants]
    return computed[0] if len(computed) == 1 else ""


def _axes(graph: Graph, node: Node) -> np.ndarray | None:
    if "axes" in node.attributes:
        return np.ravel(node.attributes["axes"])
    values = graph.constants.get(node.inputs[1]) if len(node.inputs) > 1 else None
    return None if values is None else np.ravel(values)
