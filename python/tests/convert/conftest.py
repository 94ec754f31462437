import pytest

pytest.importorskip("ravu._engine", reason="the compiled module is not built")
pytest.importorskip("onnxruntime", reason="scripts/install_dependencies.sh test installs it")
