"""What `--json` prints: JSON has no infinite numbers and no NaN, so null stands for them, as in the
`ravu` program's own output."""

from __future__ import annotations

import json
import math
from typing import Any


def json_text(value: Any) -> str:
    return json.dumps(_finite(value), indent=1, allow_nan=False)


def _finite(value: Any) -> Any:
    if isinstance(value, float):
        return value if math.isfinite(value) else None
    if isinstance(value, dict):
        return {key: _finite(part) for key, part in value.items()}
    if isinstance(value, (list, tuple)):
        return [_finite(part) for part in value]
    return value
