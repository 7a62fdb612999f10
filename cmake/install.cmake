# What `cmake --install` puts in the prefix: the four libraries, the public
# headers (in include/vxai, the same for every architecture), vxadmin,
# pkg-config files and a CMake package (find_package(VXAI) gives VXAI::vxai
# and VXAI::vxcmdsrv).  The version is the project's.
include(CMakePackageConfigHelpers)

set(VX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VXAI)

install(TARGETS vxai vxsvc vxqm vxqi_records vxcmdsrv EXPORT VXAITargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# vxadmin of the machine's own architecture goes in bin; that of a 32-bit
# build beside its libraries (lib/i386-linux-gnu/vxai/vxadmin), so that both
# builds may share a prefix.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(VX_TOOL_DIR ${CMAKE_INSTALL_LIBDIR}/vxai)
else()
  set(VX_TOOL_DIR ${CMAKE_INSTALL_BINDIR})
endif()
file(RELATIVE_PATH VX_TOOL_TO_LIB ${CMAKE_INSTALL_PREFIX}/${VX_TOOL_DIR}
     ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})
set_target_properties(vxadmin PROPERTIES INSTALL_RPATH "$ORIGIN/${VX_TOOL_TO_LIB}")
install(TARGETS vxadmin RUNTIME DESTINATION ${VX_TOOL_DIR})
# Its manual page and completion scripts are the same for both builds.
install(FILES ${CMAKE_BINARY_DIR}/tools/vxadmin.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_BINARY_DIR}/tools/vxadmin.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vxadmin)
install(FILES ${CMAKE_BINARY_DIR}/tools/_vxadmin
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
install(FILES lib/vxai/vxai.h lib/vxi/vxqi.h platform/qi/vxqi_records.h server/command_server.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vxai)

install(EXPORT VXAITargets NAMESPACE VXAI:: DESTINATION ${VX_CMAKE_DIR})
configure_package_config_file(cmake/VXAIConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/VXAIConfig.cmake INSTALL_DESTINATION ${VX_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VXAIConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VXAIConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/VXAIConfigVersion.cmake
  DESTINATION ${VX_CMAKE_DIR})

# The pkg-config files name their prefix relative to themselves, so the
# installed tree may be moved (or installed with --prefix).
file(RELATIVE_PATH VX_PC_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
foreach(pc vxai vxcmdsrv)
  configure_file(cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
