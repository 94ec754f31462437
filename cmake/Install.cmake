# Installs the shared libraries, the engine's header and what other projects find it by: a CMake package and a
# pkg-config file. Both name everything relative to themselves, so the installed tree can be moved.
include(CMakePackageConfigHelpers)

install(TARGETS ravu EXPORT ravuTargets)
if(RAVU_BUILD_FIXPOINT)
  # Beside the engine, which looks there for it.
  install(TARGETS ravu_fixpoint)
endif()
if(TARGET ravu_cldnn)
  # Beside the engine, which looks for it there; nobody links against it.
  install(TARGETS ravu_cldnn LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
install(DIRECTORY include/ravu DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(RAVU_CMAKE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/ravu)
install(EXPORT ravuTargets NAMESPACE ravu:: DESTINATION ${RAVU_CMAKE_FOLDER})
configure_package_config_file(cmake/ravuConfig.cmake.in ${PROJECT_BINARY_DIR}/ravuConfig.cmake
  INSTALL_DESTINATION ${RAVU_CMAKE_FOLDER})
# The soname changes with the major version alone, and so does what a project can ask for.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ravuConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ravuConfig.cmake ${PROJECT_BINARY_DIR}/ravuConfigVersion.cmake
  DESTINATION ${RAVU_CMAKE_FOLDER})

# From the folder of the pkg-config file up to the prefix; a library folder outside the prefix
# leaves nothing to be relative to.
set(RAVU_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(RAVU_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(RAVU_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(RAVU_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH way_up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" way_up "${way_up}")
  set(RAVU_PC_PREFIX "\${pcfiledir}/${way_up}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(RAVU_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(cmake/ravu.pc.in ${PROJECT_BINARY_DIR}/ravu.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ravu.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
