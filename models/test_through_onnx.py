"""The demo models, exported from PyTorch and converted, compute what their committed files do."""

import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

pytest.importorskip("torch", reason="only for exporting the demo models")
pytest.importorskip("onnxruntime", reason="scripts/install_dependencies.sh test installs it")
ravu = pytest.importorskip("ravu")
pytest.importorskip("ravu._engine", reason="the compiled module is not built")

FOLDER = Path(__file__).parent


@pytest.fixture(scope="module", params=["characters", "signs"])
def pair(request, tmp_path_factory):
    """The committed model and the converted one."""
    converted = tmp_path_factory.mktemp(request.param) / "out.ravu"
    paths = [str(Path(ravu.__file__).parents[1]), os.environ.get("PYTHONPATH", "")]
    subprocess.run(
        [sys.executable, "-W", "ignore", FOLDER / "through_onnx.py", request.param, converted],
        env={**os.environ, "PYTHONPATH": os.pathsep.join(paths)},
        check=True,
    )
    return FOLDER / request.param / f"{request.param}.ravu", converted


def test_both_compute_the_same(pair):
    from PIL import Image

    pictures = sorted((pair[0].parent / "images").glob("*.png"))[:4]
    assert pictures
    with ravu.Network(pair[0]) as committed, ravu.Network(pair[1]) as converted:
        assert committed.labels == converted.labels
        size = committed.input_shape[1:3]
        for path in pictures:
            pixels = np.asarray(Image.open(path).convert("RGB").resize(size))
            wanted, got = committed.run(pixels)[-1], converted.run(pixels)[-1]
            np.testing.assert_allclose(got, wanted, atol=2e-4)
