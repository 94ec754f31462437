"""What a mapping function works with: one node, its operands, and the builder."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from ..builder import Builder
from ..graph import Graph, Node, Refused
from ..values import Value


@dataclass
class Context:
    """One node that is being mapped."""

    graph: Graph
    node: Node
    builder: Builder

    @property
    def output(self) -> str:
        return self.node.outputs[0]

    @property
    def shape(self) -> tuple[int, ...] | None:
        """The first output's shape, where it is known."""
        return self.graph.shapes.get(self.output)

    def value(self, position: int = 0) -> Value:
        """An operand that the network computes."""
        name = self._name(position)
        if name in self.graph.constants:
            raise Refused(
                "is a constant where the network's data is expected", attribute=f"input {position}"
            )
        try:
            return self.builder.values[name]
        except KeyError:
            raise Refused(
                f"reads {name!r}, which nothing computes", attribute=f"input {position}"
            ) from None

    def settled(self, position: int = 0) -> Value:
        return self.builder.settled(self.value(position))

    def constant(self, position: int, what: str) -> np.ndarray:
        """An operand that must be a constant."""
        values = self.graph.constants.get(self._name(position))
        if values is None:
            raise Refused(
                "is computed by the network",
                attribute=what,
                advice="only constants can be stored as weights",
            )
        return values

    def optional_constant(self, position: int, what: str) -> np.ndarray | None:
        if len(self.node.inputs) <= position or not self.node.inputs[position]:
            return None
        return self.constant(position, what)

    def is_constant(self, position: int) -> bool:
        return self._name(position) in self.graph.constants

    def option(self, key: str, position: int, default: object = None) -> object:
        return self.graph.option(self.node, key, position, default)

    def bind(self, value: Value) -> None:
        """The node's first output; its shape is the source's where that is known."""
        shape = self.shape
        if shape is not None and not value.pending:
            if int(np.prod(shape)) != int(np.prod(value.dims)):
                raise Refused(f"gives {value.dims} here, but {shape} in the source")
            value = value.reshaped(shape)
        self.builder.bind(self.output, value, visible=self.output not in self.graph.inner)

    def only_first_output(self) -> None:
        """Refuse nodes whose further outputs are used."""
        uses = self.graph.uses()
        for name in self.node.outputs[1:]:
            if name and uses.get(name):
                raise Refused(
                    "has no counterpart",
                    attribute=f"output {name!r}",
                    advice="remove what reads it",
                )

    def _name(self, position: int) -> str:
        if len(self.node.inputs) <= position or not self.node.inputs[position]:
            raise Refused("is missing", attribute=f"input {position}")
        return self.node.inputs[position]
