# What an embedder outside the Flutter tool needs: the library, its header, and
# how CMake and pkg-config find them. The engine is the embedder's own; the
# stand-in stays here.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

install(TARGETS lumso_bluetooth_plugin LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/lumso_bluetooth DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Written by hand instead of install(EXPORT): that would want the engine's
# target to be exported, too.
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/lumso_bluetooth)
set(library_name ${CMAKE_SHARED_LIBRARY_PREFIX}lumso_bluetooth_plugin${CMAKE_SHARED_LIBRARY_SUFFIX})
configure_package_config_file(cmake/lumso_bluetooth-config.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/lumso_bluetooth-config.cmake
  INSTALL_DESTINATION ${package_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/cmake/lumso_bluetooth-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/cmake/lumso_bluetooth-config.cmake
  ${PROJECT_BINARY_DIR}/cmake/lumso_bluetooth-config-version.cmake
  DESTINATION ${package_dir})

# Relative to the place where pkg-config finds the file, so that the installed
# files can move and `cmake --install` may be given another prefix.
set(pkgconfig_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH libdir_from_pkgconfig ${pkgconfig_dir} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH includedir_from_pkgconfig ${pkgconfig_dir} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/lumso_bluetooth.pc.in ${PROJECT_BINARY_DIR}/cmake/lumso_bluetooth.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/lumso_bluetooth.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
