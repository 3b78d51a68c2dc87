# Run by CPack on the staging tree before packing: packaged programs live
# next to the system's library directory and carry no run path.
file(GLOB _programs "${CPACK_TEMPORARY_DIRECTORY}/*/usr/bin/*"
                    "${CPACK_TEMPORARY_DIRECTORY}/usr/bin/*")
foreach(_program IN LISTS _programs)
  file(RPATH_REMOVE FILE "${_program}")
endforeach()
