# One set of object files makes both kinds of library: `vorn_rpc` is the kind that BUILD_SHARED_LIBS selects, the
# other is linked from its objects. Source folders add themselves to `vorn_rpc`. On Windows what a DLL exports is marked
# in its objects, so the other kind is compiled anew.
if(WIN32)
  set(contents $<TARGET_PROPERTY:vorn_rpc,SOURCES>)
else()
  set(contents $<TARGET_OBJECTS:vorn_rpc>)
endif()
if(BUILD_SHARED_LIBS)
  add_library(vorn_rpc SHARED)
  add_library(vorn_rpc_static STATIC ${contents})
  set(vorn_rpc_shared_target vorn_rpc)
  set(vorn_rpc_static_target vorn_rpc_static)
  set_target_properties(vorn_rpc_static PROPERTIES EXPORT_NAME static)
else()
  add_library(vorn_rpc STATIC)
  add_library(vorn_rpc_shared SHARED ${contents})
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
  SOVERSION ${PROJECT_VERSION_MAJOR}
  DEFINE_SYMBOL VORN_MAKES_DLL)
if(WIN32)
  # The name has what SOVERSION is elsewhere.
  set_target_properties(${vorn_rpc_shared_target} PROPERTIES RUNTIME_OUTPUT_NAME vorn_rpc-${PROJECT_VERSION_MAJOR})
  target_compile_definitions(${vorn_rpc_static_target} PUBLIC VORN_STATIC)
endif()

# Linkers for ELF know version scripts; Windows has marks in the objects.
include(CheckCXXSourceCompiles)
set(version_script -Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/vorn_rpc.map)
set(CMAKE_REQUIRED_LINK_OPTIONS ${version_script})
check_cxx_source_compiles("int main() {}" VORN_HAS_VERSION_SCRIPTS)
unset(CMAKE_REQUIRED_LINK_OPTIONS)
if(VORN_HAS_VERSION_SCRIPTS AND NOT WIN32)
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
  set(asio_libraries Boost::boost Threads::Threads)
  if(WIN32)
    list(APPEND asio_libraries ws2_32 mswsock)
  endif()
  set(CMAKE_REQUIRED_LIBRARIES ${asio_libraries})
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
  target_link_libraries(vorn_rpc_calls PUBLIC vorn_rpc ${asio_libraries})
  if(WIN32)
    # Windows 10. What Boost.Asio's classes look like depends on it, so programs must have the same.
    target_compile_definitions(vorn_rpc_calls PUBLIC _WIN32_WINNT=0x0A00)
  endif()
  list(APPEND vorn_rpc_targets vorn_rpc_calls)
  add_library(vorn_rpc::calls ALIAS vorn_rpc_calls)
endif()
