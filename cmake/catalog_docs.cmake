# Bash completion and man page, generated at build time from the JSON help of
# the vxcli just built, so they always describe the catalogue in the binary.
include(GNUInstallDirs)

add_executable(vxcli_catalog_docs ${CMAKE_SOURCE_DIR}/tools/catalog_docs/catalog_docs_gen.cpp)
target_link_libraries(vxcli_catalog_docs PRIVATE vxcli_core)
set_target_properties(vxcli_catalog_docs PROPERTIES RUNTIME_OUTPUT_DIRECTORY
  ${CMAKE_BINARY_DIR}/tools)

set(VX_DOCS_DIR ${CMAKE_BINARY_DIR}/share)
set(VX_COMPLETION ${VX_DOCS_DIR}/bash-completion/vxcli)
set(VX_MANPAGE ${VX_DOCS_DIR}/man/vxcli.1)

add_custom_command(
  OUTPUT ${VX_COMPLETION} ${VX_MANPAGE}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${VX_DOCS_DIR}/bash-completion ${VX_DOCS_DIR}/man
  COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=0
          $<TARGET_FILE:vxcli_catalog_docs> $<TARGET_FILE:vxcli> ${VX_COMPLETION} ${VX_MANPAGE}
  DEPENDS vxcli vxcli_catalog_docs
  COMMENT "Generating bash completion and vxcli.1 from vxcli help --format=json"
  VERBATIM)
add_custom_target(vxcli_docs ALL DEPENDS ${VX_COMPLETION} ${VX_MANPAGE})

# Tests read the generated files.
if(TARGET test_cli)
  add_dependencies(test_cli vxcli_docs)
endif()

install(FILES ${VX_MANPAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${VX_COMPLETION} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
