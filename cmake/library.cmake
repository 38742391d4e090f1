# Linkers for ELF know version scripts.
include(CheckCXXSourceCompiles)
set(version_script -Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/vorn_rpc.map)
set(CMAKE_REQUIRED_LINK_OPTIONS ${version_script})
check_cxx_source_compiles("int main() {}" VORN_HAS_VERSION_SCRIPTS)
unset(CMAKE_REQUIRED_LINK_OPTIONS)

# vorn_library(<name> <shared> <static>) makes both kinds of a library from one set of object files: the target <name> is
# the kind that BUILD_SHARED_LIBS selects, the other is linked from its objects. Source folders add themselves to <name>.
# The targets are exported as vorn_rpc::<name>, and the other kind as vorn_rpc::<shared> or vorn_rpc::<static>; inside the
# build all three names work. Sets <name>_targets, <name>_shared_target and <name>_static_target.
function(vorn_library name shared static)
  if(BUILD_SHARED_LIBS)
    add_library(${name} SHARED)
    add_library(${name}_static STATIC $<TARGET_OBJECTS:${name}>)
    set(shared_target ${name})
    set(static_target ${name}_static)
    set_target_properties(${static_target} PROPERTIES EXPORT_NAME ${static})
  else()
    add_library(${name} STATIC)
    add_library(${name}_shared SHARED $<TARGET_OBJECTS:${name}>)
    set(shared_target ${name}_shared)
    set(static_target ${name})
    set_target_properties(${shared_target} PROPERTIES EXPORT_NAME ${shared})
  endif()
  set(targets ${shared_target} ${static_target})

  set_target_properties(${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  set_target_properties(${targets} PROPERTIES
    OUTPUT_NAME ${name}
    LINKER_LANGUAGE CXX)
  set_target_properties(${shared_target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  if(VORN_HAS_VERSION_SCRIPTS)
    target_link_options(${shared_target} PRIVATE ${version_script})
    set_target_properties(${shared_target} PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/vorn_rpc.map)
  endif()
  foreach(target IN LISTS targets)
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  endforeach()

  add_library(vorn_rpc::${shared} ALIAS ${shared_target})
  add_library(vorn_rpc::${static} ALIAS ${static_target})
  set(${name}_targets ${targets} PARENT_SCOPE)
  set(${name}_shared_target ${shared_target} PARENT_SCOPE)
  set(${name}_static_target ${static_target} PARENT_SCOPE)
endfunction()

# Uses Boost's own package file: newer releases of CMake no longer have the FindBoost module.
if(POLICY CMP0167)
  cmake_policy(SET CMP0167 NEW)
endif()
find_package(Boost 1.62 REQUIRED)
find_package(Threads REQUIRED)

vorn_library(vorn_rpc shared static)
add_library(vorn_rpc::vorn_rpc ALIAS vorn_rpc)
add_subdirectory(proto)
add_subdirectory(vobject)
add_subdirectory(stream)
foreach(target IN LISTS vorn_rpc_targets)
  target_link_libraries(${target} PUBLIC Boost::boost Threads::Threads)
endforeach()

# Calls are a library of their own, so that nobody else depends on Boost.Asio.
if(VORN_BUILD_RPC)
  set(CMAKE_REQUIRED_LIBRARIES Boost::boost Threads::Threads)
  check_cxx_source_compiles("#include <boost/asio/any_io_executor.hpp>\nint main() {}" VORN_HAS_ASIO)
  unset(CMAKE_REQUIRED_LIBRARIES)
  if(NOT VORN_HAS_ASIO)
    message(FATAL_ERROR "rpc/ needs Boost.Asio 1.74 or later (boost/asio/any_io_executor.hpp). Install it, or leave calls "
      "out with -DVORN_BUILD_RPC=OFF")
  endif()
  vorn_library(vorn_rpc_calls calls_shared calls_static)
  set_target_properties(vorn_rpc_calls PROPERTIES EXPORT_NAME calls)
  add_library(vorn_rpc::calls ALIAS vorn_rpc_calls)
  add_subdirectory(rpc)
  target_link_libraries(${vorn_rpc_calls_shared_target} PUBLIC ${vorn_rpc_shared_target})
  target_link_libraries(${vorn_rpc_calls_static_target} PUBLIC ${vorn_rpc_static_target})
endif()
