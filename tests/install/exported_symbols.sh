#!/bin/sh
# Checks the names libusemeter.so exports: nothing outside its interface (the flat
# usemeter_* functions, usemeter_1_5_7::, basekit::path_t, prodenv::IProductLocations),
# and the classes' type information hosts need (the functions are linked by the example hosts).
# Usage: exported_symbols.sh <path of libusemeter.so>
set -eu
exported=$(nm -D --defined-only "$1" | awk '{ print $NF }' | c++filt)

# std:: and boost:: template instances and exception type information may get default
# visibility from those libraries' own headers; they are theirs, not part of ours.
unexpected=$(printf '%s\n' "$exported" |
    sed -E 's/^(typeinfo name for |typeinfo for |vtable for |VTT for |construction vtable for |guard variable for |(non-)?virtual thunk to )//' |
    grep -Ev '^(usemeter_[a-z_]+|_init|_fini)$' |
    grep -Ev '^(usemeter_1_5_7::|basekit::path_t(::|$)|prodenv::IProductLocations(::|$))' |
    grep -Ev '^([a-z_ ]+ )?(std|boost)::' || true)

required='vtable for usemeter_1_5_7::statistic_t
typeinfo for usemeter_1_5_7::statistic_t
typeinfo for usemeter_1_5_7::statistic_impl_ga_t
vtable for usemeter_1_5_7::orb_accessor_impl_t
typeinfo for usemeter_1_5_7::orb_accessor_t
vtable for prodenv::IProductLocations'
missing=$(printf '%s\n' "$required" | grep -vxF "$exported" || true)

[ -z "$unexpected" ] ||
    printf 'libusemeter.so exports names outside its interface:\n%s\n' "$unexpected"
[ -z "$missing" ] || printf 'libusemeter.so does not export:\n%s\n' "$missing"
[ -z "$unexpected$missing" ]
