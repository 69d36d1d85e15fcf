"""The package frame: version, team size, the same bits for 1, 3 and 4
threads, and the GIL released while the library works."""
import threading
import time

import numpy as np

import qelr


def test_version():
    # The package's version is the library's record, whose text repeats its numbers.
    v = qelr.library_version()
    assert qelr.__version__ == "%d.%d.%d" % (v["major"], v["minor"], v["update"])
    assert v["version_text"] == "%s (r%d)" % (qelr.__version__, v["build"])


def test_same_bits_for_any_team_size():
    rng = np.random.default_rng(3)
    v = rng.uniform(0, 200, (40, 36, 45)).astype(np.float32)
    vi = rng.integers(-900, 900, v.shape).astype(np.int16)
    kernel = rng.integers(-3, 4, (3, 5, 3))
    coords = np.mgrid[0:34, 0:33, 0:35] * 1.1 + rng.normal(0, 0.5, (3, 34, 33, 35))
    saved, results = qelr.get_num_threads(), []
    for n in (1, 3, 4):
        qelr.set_num_threads(n)
        assert qelr.get_num_threads() == n
        results.append([qelr.resize(v, 1.3, mode="cubic"), qelr.map_coordinates(v, coords, mode="catmull-rom"),
                        qelr.affine_transform(v, [[1, 0.1, 0], [0, 0.9, 0.2], [0, -0.1, 1]], 2.0, mode="linear"),
                        qelr.convolve(vi, kernel, divisor=5)])
    qelr.set_num_threads(saved)
    for later in results[1:]:
        for a, b in zip(results[0], later):
            np.testing.assert_array_equal(a, b)


def test_gil_released():
    """While one thread is inside long library calls, another runs Python."""
    v = np.random.default_rng(1).integers(-100, 100, (96, 96, 96)).astype(np.int16)
    worker = threading.Thread(target=lambda: [qelr.convolve(v, np.ones((9, 9, 9), int)) for _ in range(3)])
    worker.start()
    ticks = 0
    while worker.is_alive():
        ticks += 1
        time.sleep(0)
    assert ticks > 100  # with the GIL held the loop would stall for the whole calls
