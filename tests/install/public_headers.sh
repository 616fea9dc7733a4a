#!/bin/sh
# Compiles each public header alone (twice, to prove its include guard): the C headers
# as strict C99, every header as C++17.
# Usage: public_headers.sh <include dir> <C compiler> <C++ compiler>
set -eu
include_dir=$1 cc=$2 cxx=$3

failed=0
check() {  # check <header> <compiler and flags...>
    header=$1
    shift
    # The typedef keeps a header of macros only from leaving an empty translation unit.
    printf '#include <usemeter/%s>\n#include <usemeter/%s>\ntypedef int header_check;\n' \
        "$header" "$header" | "$@" -I"$include_dir" -c -o /dev/null - || {
        echo "not clean alone: $header ($1)"
        failed=1
    }
}

for path in "$include_dir"/usemeter/*.h; do
    check "${path##*/}" "$cc" -x c -std=c99 -Wall -Wextra -pedantic -Werror
done
headers=$(cd "$include_dir/usemeter" && echo *.h *.hpp sys/*.hpp)
for header in $headers; do
    check "$header" "$cxx" -x c++ -std=c++17 -Wall -Wextra -Werror
done
# A host that includes only the public headers needs no Boost.Thread, Boost.Filesystem or curl.
for path in "$include_dir"/usemeter/*.h*; do
    printf '#include <usemeter/%s>\n' "${path##*/}"
done | "$cxx" -x c++ -std=c++17 -I"$include_dir" -H -fsyntax-only - 2>&1 |
    grep -E 'boost/(thread|filesystem)|curl/' && {
    echo "public headers pull in advanced dependencies"
    failed=1
}
exit $failed
