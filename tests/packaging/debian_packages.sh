#!/usr/bin/env bash
# Builds the Debian packages from a copy of the source tree, checks them with
# lintian, unpacks them into a scratch root with dpkg -x, and builds and runs
# the C consumer (CMake package and pkg-config), an example program and the
# Python package against that root alone.
#   debian_packages.sh SOURCE_DIR WORK_DIR
set -euo pipefail
src=$(cd "$1" && pwd)
work=$2
rm -rf "$work"
mkdir -p "$work/src" "$work/root"
work=$(cd "$work" && pwd)

# The source as a clone would have it: tracked and new files, no build trees.
if git -C "$src" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  (cd "$src" && git ls-files -z --cached --others --exclude-standard |
     while IFS= read -r -d '' f; do [[ -e $f ]] && printf '%s\0' "$f"; done |
     xargs -0 cp --parents -t "$work/src")
else
  (cd "$src" && tar --exclude=./build --exclude='./obj-*' -cf - .) | tar -xf - -C "$work/src"
fi

echo "== dpkg-buildpackage"
(cd "$work/src" && DEB_BUILD_OPTIONS="noddebs parallel=$(nproc)" DPKG_GENSYMBOLS_CHECK_LEVEL=4 \
   dpkg-buildpackage -us -uc -b >"$work/build.log" 2>&1) || { tail -60 "$work/build.log"; exit 1; }
ls "$work"/*.deb
for p in libqelr7 libqelr-dev qelr-tools python3-qelr; do
  compgen -G "$work/${p}_*.deb" >/dev/null || { echo "missing package $p"; exit 1; }
done

if command -v lintian >/dev/null; then
  echo "== lintian"
  lintian --fail-on error "$work"/*.changes
fi

echo "== unpack into $work/root"
for deb in "$work"/*.deb; do dpkg -x "$deb" "$work/root"; done
libdir=$(dirname "$(find "$work/root" -name 'libqelr.so.7' | head -1)")
export LD_LIBRARY_PATH=$libdir

echo "== C consumer through find_package(qelr)"
cmake -S "$src/tests/consumer" -B "$work/consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_PREFIX_PATH="$work/root/usr" -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"
ldd "$work/consumer/consumer" | grep -q "$libdir/libqelr.so.7" || { echo "consumer did not link the unpacked library"; exit 1; }

echo "== C consumer through pkg-config"
flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_LIBDIR= pkg-config --cflags --libs qelr)
cc -std=c99 -Wall -Werror "$src/tests/consumer/main.c" $flags -o "$work/consumer_pc"
"$work/consumer_pc"

echo "== example program and Python package from the root"
"$work/root/usr/bin/qelr-info"
(cd "$work" && "$work/root/usr/bin/qelr-sh-plot" "$work/sh.png" 2)
PYTHONPATH="$work/root/usr/lib/python3/dist-packages" /usr/bin/python3 -c \
  "import qelr, numpy; print('python3-qelr', qelr.library_version()['version_text'], qelr.resize(numpy.ones((4, 4, 4), numpy.float32), 2).shape)"
echo "packages OK"
