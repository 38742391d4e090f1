include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Headers go one folder deeper, so that `#include "proto/packet_buf.h"` cannot find another library's header.
install(TARGETS ${vorn_rpc_targets} EXPORT vorn_rpc
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn_rpc)
install(DIRECTORY proto vobject stream packing DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn_rpc FILES_MATCHING PATTERN "*.h")
if(VORN_BUILD_RPC)
  install(DIRECTORY rpc DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vorn_rpc
    FILES_MATCHING PATTERN "*.h" PATTERN detail EXCLUDE)
endif()

set(vorn_rpc_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vorn_rpc)
install(EXPORT vorn_rpc NAMESPACE vorn_rpc:: FILE vorn_rpc-targets.cmake DESTINATION ${vorn_rpc_cmake_dir})
configure_package_config_file(cmake/vorn_rpc-config.cmake.in vorn_rpc-config.cmake
  INSTALL_DESTINATION ${vorn_rpc_cmake_dir})
write_basic_package_version_file(vorn_rpc-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/vorn_rpc-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/vorn_rpc-config-version.cmake
  DESTINATION ${vorn_rpc_cmake_dir})

# The .pc files compute their prefix from their own location, so an installed tree may be moved.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  set(pc_prefix ${CMAKE_INSTALL_PREFIX})
  set(pc_libdir ${CMAKE_INSTALL_FULL_LIBDIR})
  set(pc_includedir ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
  file(RELATIVE_PATH pc_up ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" pc_up "${pc_up}")
  set(pc_prefix "\${pcfiledir}/${pc_up}")
  set(pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
set(pc_names vorn_rpc)
if(VORN_BUILD_RPC)
  list(APPEND pc_names vorn_rpc_calls)
endif()
foreach(name IN LISTS pc_names)
  configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
