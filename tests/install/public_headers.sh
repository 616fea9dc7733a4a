#!/bin/sh
# Compiles each public header alone (twice, to prove its include guard): the C headers
# as strict C99, every header as C++17.
# Usage: public_headers.sh <include dir> <C compiler> <C++ compiler>
set -eu
include_dir=$1 cc=$2 cxx=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/usemeter-headers-XXXXXX")
trap 'rm -rf "$work"' EXIT

failed=0
check() {  # check <header> <source name> <compiler and flags...>
    header=$1 source=$work/$2
    shift 2
    # The typedef keeps a header of macros only from leaving an empty translation unit.
    printf '#include <usemeter/%s>\n#include <usemeter/%s>\ntypedef int header_check;\n' \
        "$header" "$header" >"$source"
    "$@" -I"$include_dir" -c "$source" -o "$work/out.o" || {
        echo "not clean alone: $header ($1)"
        failed=1
    }
}

for path in "$include_dir"/usemeter/*.h; do
    check "${path##*/}" alone.c "$cc" -std=c99 -Wall -Wextra -pedantic -Werror
done
for path in "$include_dir"/usemeter/*.h "$include_dir"/usemeter/*.hpp "$include_dir"/usemeter/sys/*.hpp; do
    check "${path#"$include_dir"/usemeter/}" alone.cpp "$cxx" -std=c++17 -Wall -Wextra -Werror
done
# A host that includes only the public headers needs no Boost.Thread, Boost.Filesystem or curl.
for path in "$include_dir"/usemeter/*.h*; do
    printf '#include <usemeter/%s>\n' "${path##*/}"
done >"$work/all_public.cpp"
if "$cxx" -std=c++17 -I"$include_dir" -H -fsyntax-only "$work/all_public.cpp" 2>&1 |
        grep -E 'boost/(thread|filesystem)|curl/'; then
    echo "public headers pull in advanced dependencies"
    failed=1
fi
exit $failed
