"""Python side of the ravu inference engine."""
