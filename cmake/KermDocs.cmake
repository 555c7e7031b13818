# API reference (Doxygen), the kerm man page (help2man) and bash completion.
find_program(KERM_DOXYGEN doxygen)
if(KERM_DOXYGEN)
  set(kerm_docs_default ON)
else()
  set(kerm_docs_default OFF)
endif()
option(KERM_BUILD_DOCS "Build the API reference; fails on an undocumented exported function" ${kerm_docs_default})

if(KERM_BUILD_DOCS)
  if(NOT KERM_DOXYGEN)
    message(FATAL_ERROR "KERM_BUILD_DOCS needs doxygen")
  endif()
  set(KERM_DOCS_OUT ${CMAKE_BINARY_DIR}/docs)
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${KERM_DOCS_OUT}/Doxyfile @ONLY)
  file(GLOB kerm_doc_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h)
  add_custom_command(OUTPUT ${KERM_DOCS_OUT}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${KERM_DOCS_OUT}/html
    COMMAND ${KERM_DOXYGEN} ${KERM_DOCS_OUT}/Doxyfile
    COMMAND ${PROJECT_SOURCE_DIR}/docs/check-undocumented.sh ${KERM_DOCS_OUT}/warnings.log
            ${PROJECT_SOURCE_DIR}/include
    DEPENDS ${kerm_doc_headers} ${PROJECT_SOURCE_DIR}/docs/mainpage.md ${KERM_DOCS_OUT}/Doxyfile
            ${PROJECT_SOURCE_DIR}/docs/check-undocumented.sh
    COMMENT "API reference (doxygen)" VERBATIM)
  add_custom_target(kerm_docs ALL DEPENDS ${KERM_DOCS_OUT}/html/index.html)
  install(DIRECTORY ${KERM_DOCS_OUT}/html/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/html)
endif()

if(KERM_BUILD_TOOLS)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
    FILES_MATCHING PATTERN "*.c" PATTERN "*.cpp" PATTERN "*.txt" PATTERN "CMakeLists.txt" EXCLUDE)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/kerm/kerm.bash-completion
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions RENAME kerm)
  find_program(KERM_HELP2MAN help2man)
  if(KERM_HELP2MAN AND NOT CMAKE_CROSSCOMPILING)
    add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/kerm.1
      COMMAND ${KERM_HELP2MAN} --no-info --section=1 --source=kerm_util
              "--name=command-line tool of the kerm_util device library"
              --output=${CMAKE_BINARY_DIR}/kerm.1 $<TARGET_FILE:kerm>
      DEPENDS kerm COMMENT "kerm.1 (help2man)" VERBATIM)
    add_custom_target(kerm_man ALL DEPENDS ${CMAKE_BINARY_DIR}/kerm.1)
    install(FILES ${CMAKE_BINARY_DIR}/kerm.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endif()
