#!/usr/bin/env bash
# Installs the Debian packages that building and testing qelr needs, if any
# is missing. With --bench it also installs the peers that the benchmarks
# compare against (Embree, SciPy) and the real test meshes.
set -euo pipefail

packages=(cmake ninja-build g++ libgtest-dev libbenchmark-dev pkg-config zlib1g-dev)
if [[ "${1:-}" == "--bench" ]]; then
  packages+=(libembree-dev python3-numpy python3-scipy assimp-testmodels)
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
