# Library, headers, pkg-config file and CMake package.
include(CMakePackageConfigHelpers)

install(TARGETS kerm_util EXPORT kerm_utilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The library's API includes cJSON and libuuid (uuid_generate...), which stay
# in their own shared libraries: the shared libuuid cannot be merged in, and
# forwarding stubs of the same names would interpose on the real ones. So the
# link name libkerm_util.so is a linker script that adds both: a plain
# -lkerm_util (and the pkg-config Libs) then resolves them, and AS_NEEDED keeps
# programs that do not call them free of the extra dependencies. The CMake
# package gets them through the target's interface instead.
file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/linkname/libkerm_util.so
  CONTENT "/* GNU ld script */\nINPUT($<TARGET_SONAME_FILE_NAME:kerm_util> AS_NEEDED(-lcjson -luuid))\n")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/linkname/libkerm_util.so DESTINATION ${CMAKE_INSTALL_LIBDIR})
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
# The pkg-config file finds its prefix from its own place, so an installed
# tree can move (staging directory, device image).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KERM_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH kerm_pc_up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" kerm_pc_up "${kerm_pc_up}")
  set(KERM_PC_PREFIX "\${pcfiledir}/${kerm_pc_up}")
endif()
configure_file(cmake/kerm_util.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kerm_util.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kerm_util.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
