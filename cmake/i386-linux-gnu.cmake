# Toolchain for the 32-bit x86 reference platform on a Debian amd64 host with multilib
# (scripts/install-deps-i386):
#   cmake -S . -B build-i386 -DCMAKE_TOOLCHAIN_FILE=cmake/i386-linux-gnu.cmake
# Not a cross build in CMake's sense: an amd64 kernel runs the i386 test programs natively,
# so test discovery and ctest work as usual.
# The compilers are the system ones behind a wrapper that adds -m32, so every compile and
# link, including those of programs the tests build themselves, targets i386.
set(CMAKE_C_COMPILER ${CMAKE_CURRENT_LIST_DIR}/i386-linux-gnu/gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_CURRENT_LIST_DIR}/i386-linux-gnu/g++)

# find_library and the package config files look under lib/i386-linux-gnu first; without
# this, libcurl and Boost would resolve to the 64-bit copies and fail at link time.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)
set(Boost_ROOT /usr/lib/i386-linux-gnu/cmake)
set(Boost_DIR /usr/lib/i386-linux-gnu/cmake/Boost-1.74.0)

# pkg-config (log4cplus) must see only the i386 .pc files and the architecture-free ones.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
