# Library, headers, pkg-config file and CMake package.
include(CMakePackageConfigHelpers)

install(TARGETS kerm_util EXPORT kerm_utilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(EXPORT kerm_utilTargets NAMESPACE kerm_util::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kerm_util)
configure_package_config_file(cmake/kerm_utilConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kerm_utilConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kerm_util)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kerm_utilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kerm_utilConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kerm_utilConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kerm_util)
# Relocatable: the prefix is found from where the .pc file lies.
file(RELATIVE_PATH KERM_PC_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/kerm_util.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kerm_util.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kerm_util.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
