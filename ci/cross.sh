# shellcheck shell=bash
#
# What a build for another system, or with another compiler or standard library, needs of this machine. Sourced after
# lib.sh by checks that make one.

# boost_package PREFIX HEADERS: a package of Boost's headers alone, the folder HEADERS/boost. Where Debian has them are
# also those of this machine's C library, which no other system's compiler may see.
boost_package() {
  local prefix=$1 headers=$2
  mkdir -p "$prefix/include" "$prefix/lib/cmake/Boost"
  ln -sfn "$headers/boost" "$prefix/include/boost"
  cat >"$prefix/lib/cmake/Boost/BoostConfig.cmake" <<'CMAKE'
if(NOT TARGET Boost::boost)
  add_library(Boost::boost INTERFACE IMPORTED)
  set_target_properties(Boost::boost PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR}/../../../include")
endif()
CMAKE
  sed -n 's/^#define BOOST_LIB_VERSION "\([0-9]*\)_\([0-9]*\).*/set(PACKAGE_VERSION \1.\2)/p' "$headers/boost/version.hpp" \
    >"$prefix/lib/cmake/Boost/BoostConfigVersion.cmake"
  echo 'set(PACKAGE_VERSION_COMPATIBLE TRUE)' >>"$prefix/lib/cmake/Boost/BoostConfigVersion.cmake"
}

# gtest_package PREFIX OPTION...: GoogleTest, built with these options of CMake unless it is there. Its sources are
# GTEST_SOURCE (default: the Debian package's, /usr/src/googletest).
gtest_package() {
  local prefix=$1
  shift
  [ ! -e "$prefix/gtest-done" ] || return 0
  quietly cmake -S "${GTEST_SOURCE:-/usr/src/googletest}" -B "$prefix/gtest-build" -DCMAKE_BUILD_TYPE=Release \
    -DBUILD_GMOCK=OFF "-DCMAKE_INSTALL_PREFIX=$prefix" -DCMAKE_INSTALL_LIBDIR=lib "$@"
  # shellcheck disable=SC2154 # lib.sh sets it
  quietly cmake --build "$prefix/gtest-build" -j"$jobs" --target install
  touch "$prefix/gtest-done"
}
