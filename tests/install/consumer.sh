#!/bin/sh
# Installs the built library into a temporary prefix and builds an outside program against
# the installed files only, once through the CMake package and once through pkg-config.
# Usage: consumer.sh <build dir> <cmake> <C++ compiler>
set -eu
build_dir=$1 cmake=$2 cxx=$3
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/usemeter-install-XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

"$cmake" --install "$build_dir" --prefix "$prefix"
libdir=$(dirname "$(find "$prefix" -name libusemeter.so)")

"$cmake" -S "$here/consumer" -B "$work/by-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx"
"$cmake" --build "$work/by-cmake"
LD_LIBRARY_PATH=$libdir "$work/by-cmake/consumer"

# usemeter.pc records the prefix given at configure time, not the one given to --install.
flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --define-variable=prefix="$prefix" \
    --cflags --libs usemeter)
"$cxx" -std=c++17 -o "$work/by-pkg-config" "$here/consumer/main.cpp" $flags
LD_LIBRARY_PATH=$libdir "$work/by-pkg-config"
