#!/usr/bin/env bash
# Installs the Debian packages that building and testing qelr needs, if any
# is missing: the C++ toolchain, and Debian's Python 3 with pybind11, numpy,
# SciPy, Dask, dask.distributed, zarr and pytest for the Python package, its
# tests and examples (setuptools, wheel and venv for `pip install .`), Doxygen
# for the API reference, the Debian packaging tools (debhelper, dpkg-dev,
# dh-python, lintian) that the package test uses, and clang with its sanitizer
# runtimes (libFuzzer among them) and LLVM's OpenMP runtime for the fuzz and
# ThreadSanitizer presets. With
# --bench it also installs the peers that the C++ benchmarks compare against
# (Embree) and the real test meshes.
set -euo pipefail

packages=(cmake ninja-build g++ libgtest-dev libbenchmark-dev pkg-config zlib1g-dev
          doxygen debhelper dpkg-dev lintian dh-python python3-all-dev fakeroot
          python3-dev pybind11-dev python3-pybind11 python3-numpy python3-scipy python3-dask
          python3-distributed python3-zarr python3-pytest python3-setuptools python3-wheel python3-venv
          clang libclang-rt-14-dev libomp-14-dev)
if [[ "${1:-}" == "--bench" ]]; then
  packages+=(libembree-dev assimp-testmodels)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [[ $(id -u) -ne 0 ]] && sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi
