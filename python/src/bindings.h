#pragma once
#include <pybind11/pybind11.h>

namespace qelr::py_ext {
void bindVolume(pybind11::module_& m);
void bindSH(pybind11::module_& m);
void bindScene(pybind11::module_& m);
}  // namespace qelr::py_ext
