"""What the Python tests share: the interpolation modes with the library's
numbers for them, the volume types, and a team of 1 and of 3 threads."""
import numpy as np
import pytest

import qelr

MODE_VALUE = {"nearest": 1, "linear": 2, "cubic": 4, "bspline": 5, "catmull-rom": 6, "b05c03": 7}
VOLUME_TYPES = [np.uint8, np.uint16, np.float32]


@pytest.fixture(params=[1, 3])
def threads(request):
    saved = qelr.get_num_threads()
    qelr.set_num_threads(request.param)
    yield request.param
    qelr.set_num_threads(saved)
