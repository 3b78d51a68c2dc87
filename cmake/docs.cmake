# The docs target: an HTML reference of the public headers made with
# Doxygen (build/docs/html/index.html). Any warning fails it, so a public
# name, parameter or return value without its comment breaks the build of
# the reference.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(VEPRA_DOCS_DIR ${PROJECT_BINARY_DIR}/docs)
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in
                 ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  file(GLOB _doc_inputs CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h
       ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/docs/*.dox
       ${PROJECT_SOURCE_DIR}/examples/*.c)
  add_custom_command(
    OUTPUT ${VEPRA_DOCS_DIR}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E make_directory ${VEPRA_DOCS_DIR}
    COMMAND ${CMAKE_COMMAND} -E rm -f ${VEPRA_DOCS_DIR}/warnings.log
    # The warnings are in the log: show them when Doxygen fails.
    COMMAND sh -c "'${DOXYGEN_EXECUTABLE}' '${PROJECT_BINARY_DIR}/Doxyfile' || { cat '${VEPRA_DOCS_DIR}/warnings.log'; exit 1; }"
    DEPENDS ${_doc_inputs} ${PROJECT_SOURCE_DIR}/README.md
            ${PROJECT_BINARY_DIR}/Doxyfile
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "Making the API reference with Doxygen"
    VERBATIM)
  add_custom_target(docs DEPENDS ${VEPRA_DOCS_DIR}/html/index.html)
endif()
