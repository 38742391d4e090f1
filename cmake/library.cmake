# One set of object files makes both kinds of library: `vorn_rpc` is the kind that BUILD_SHARED_LIBS selects, the
# other is linked from its objects. Source folders add themselves to `vorn_rpc`.
if(BUILD_SHARED_LIBS)
  add_library(vorn_rpc SHARED)
  add_library(vorn_rpc_static STATIC $<TARGET_OBJECTS:vorn_rpc>)
  set(vorn_rpc_shared_target vorn_rpc)
  set(vorn_rpc_static_target vorn_rpc_static)
  set_target_properties(vorn_rpc_static PROPERTIES EXPORT_NAME static)
else()
  add_library(vorn_rpc STATIC)
  add_library(vorn_rpc_shared SHARED $<TARGET_OBJECTS:vorn_rpc>)
  set(vorn_rpc_shared_target vorn_rpc_shared)
  set(vorn_rpc_static_target vorn_rpc)
  set_target_properties(vorn_rpc_shared PROPERTIES EXPORT_NAME shared)
endif()
set(vorn_rpc_targets ${vorn_rpc_shared_target} ${vorn_rpc_static_target})

set_target_properties(vorn_rpc PROPERTIES
  POSITION_INDEPENDENT_CODE ON
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
set_target_properties(${vorn_rpc_targets} PROPERTIES
  OUTPUT_NAME vorn_rpc
  LINKER_LANGUAGE CXX)
set_target_properties(${vorn_rpc_shared_target} PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})

# Linkers for ELF know version scripts.
include(CheckCXXSourceCompiles)
set(version_script -Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/vorn_rpc.map)
set(CMAKE_REQUIRED_LINK_OPTIONS ${version_script})
check_cxx_source_compiles("int main() {}" VORN_HAS_VERSION_SCRIPTS)
unset(CMAKE_REQUIRED_LINK_OPTIONS)
if(VORN_HAS_VERSION_SCRIPTS)
  target_link_options(${vorn_rpc_shared_target} PRIVATE ${version_script})
  set_target_properties(${vorn_rpc_shared_target} PROPERTIES LINK_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/vorn_rpc.map)
endif()

# Uses Boost's own package file: newer releases of CMake no longer have the FindBoost module.
if(POLICY CMP0167)
  cmake_policy(SET CMP0167 NEW)
endif()
find_package(Boost 1.62 REQUIRED)
find_package(Threads REQUIRED)

add_subdirectory(proto)
add_subdirectory(vobject)
add_subdirectory(stream)
add_subdirectory(packing)

foreach(target IN LISTS vorn_rpc_targets)
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_link_libraries(${target} PUBLIC Boost::boost Threads::Threads)
endforeach()

# The target names of an installed package also work inside the build.
add_library(vorn_rpc::vorn_rpc ALIAS vorn_rpc)
add_library(vorn_rpc::shared ALIAS ${vorn_rpc_shared_target})
add_library(vorn_rpc::static ALIAS ${vorn_rpc_static_target})

# Calls are a library of their own, so that nobody else depends on Boost.Asio. It is static only: Boost.Asio keeps what
# runs on a thread in variables of its headers, and a shared library would have others than the program that runs the
# io_context.
if(VORN_BUILD_RPC)
  set(CMAKE_REQUIRED_LIBRARIES Boost::boost Threads::Threads)
  check_cxx_source_compiles("#include <boost/asio/any_io_executor.hpp>\nint main() {}" VORN_HAS_ASIO)
  unset(CMAKE_REQUIRED_LIBRARIES)
  if(NOT VORN_HAS_ASIO)
    message(FATAL_ERROR "rpc/ needs Boost.Asio 1.74 or later (boost/asio/any_io_executor.hpp). Install it, or leave calls "
      "out with -DVORN_BUILD_RPC=OFF")
  endif()
  add_library(vorn_rpc_calls STATIC)
  add_subdirectory(rpc)
  set_target_properties(vorn_rpc_calls PROPERTIES
    EXPORT_NAME calls
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_link_libraries(vorn_rpc_calls PUBLIC vorn_rpc)
  list(APPEND vorn_rpc_targets vorn_rpc_calls)
  add_library(vorn_rpc::calls ALIAS vorn_rpc_calls)
endif()
