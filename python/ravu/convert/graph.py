"""The source network as the converter sees it: nodes in order, constants, shapes; and refusals.

Operators carry ONNX's names and meanings whatever file they came from. Tensors are channel-major:
(batch, channels, height, width), the batch being 1.
"""

from __future__ import annotations

from dataclasses import asdict, dataclass, field
from typing import Any

import numpy as np


class SourceError(Exception):
    """A source file that cannot be read, or contradicts itself."""


@dataclass(frozen=True)
class Refusal:
    """One thing that stands in the way, and what its user could do about it.

    attribute: the attribute, input or property at fault; empty for the operator as such
    """

    node: str
    operator: str
    attribute: str
    reason: str
    advice: str = ""

    def __str__(self) -> str:
        where = f"{self.operator} {self.node!r}"
        if self.attribute:
            where += f", {self.attribute}"
        return f"{where}: {self.reason}" + (f" ({self.advice})" if self.advice else "")

    def to_json(self) -> dict[str, str]:
        return asdict(self)


class ConversionRefused(Exception):
    """The network cannot be expressed: all the refusals, in the order of the nodes."""

    def __init__(self, refusals: list[Refusal]) -> None:
        super().__init__("\n".join(map(str, refusals)))
        self.refusals = refusals


class Refused(Exception):
    """Raised while one node is mapped; the converter collects it and goes on."""

    def __init__(self, reason: str, *, attribute: str = "", advice: str = "") -> None:
        super().__init__(reason)
        self.reason = reason
        self.attribute = attribute
        self.advice = advice


@dataclass
class Node:
    """One operator. An empty name among the inputs is an optional input that is not given."""

    op: str
    name: str
    inputs: list[str]
    outputs: list[str]
    attributes: dict[str, Any] = field(default_factory=dict)
    opset: int = 13

    def get(self, key: str, default: Any = None) -> Any:
        """An attribute's value."""
        return self.attributes.get(key, default)


@dataclass
class Graph:
    """A network of one input.

    shapes: of every tensor whose shape is known, the batch being 1
    takes_bytes: whether the input is of unsigned bytes
    inner:  tensors in the middle of one of the source's layers, which the source does not have
    """

    nodes: list[Node]
    constants: dict[str, np.ndarray]
    shapes: dict[str, tuple[int, ...]]
    input: str
    outputs: list[str]
    takes_bytes: bool = False
    inner: set[str] = field(default_factory=set)

    def option(self, node: Node, key: str, position: int, default: Any = None) -> Any:
        """A value that is an attribute in old operator sets and a constant input in new ones."""
        if key in node.attributes:
            return node.attributes[key]
        if len(node.inputs) <= position or not node.inputs[position]:
            return default
        value = self.constants.get(node.inputs[position])
        if value is None:
            raise Refused(
                "is computed by the network",
                attribute=key,
                advice="export the model with this value as a constant",
            )
        return value

    def without_dead_ends(self) -> None:
        """Drop the nodes that no output depends on."""
        needed = set(self.outputs)
        kept: list[Node] = []
        for node in reversed(self.nodes):
            if needed.intersection(node.outputs):
                needed.update(name for name in node.inputs if name)
                kept.append(node)
        self.nodes = kept[::-1]

    def uses(self) -> dict[str, int]:
        """How often each tensor is read; being an output of the network counts as once."""
        counts: dict[str, int] = {}
        for name in [*(name for node in self.nodes for name in node.inputs), *self.outputs]:
            counts[name] = counts.get(name, 0) + 1
        return counts
