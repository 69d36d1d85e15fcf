"""The Python examples run on small sizes and write their images."""
import os
import subprocess
import sys

import pytest

HERE = os.path.join(os.environ.get("QELR_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", "..")),
                    "examples", "python")


@pytest.mark.parametrize("script, args, image", [
    ("sh_scene.py", ["--size", "96x64", "--out", "scene.png"], "scene.png"),
    ("volume_dask.py", ["--size", "40", "--chunk", "16", "--memory-limit", "1GB", "--in-process",
                        "--out", "volume"], os.path.join("volume", "montage.png")),
])
def test_example(tmp_path, script, args, image):
    subprocess.run([sys.executable, os.path.join(HERE, script)] + args, cwd=tmp_path, check=True,
                   timeout=300, stdout=subprocess.DEVNULL)
    with open(tmp_path / image, "rb") as f:
        assert f.read(8) == b"\x89PNG\r\n\x1a\n"
