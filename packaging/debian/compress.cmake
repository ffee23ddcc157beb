# Run by cpack on each package's files before it packs them.
file(GLOB_RECURSE files
    "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/*"
    "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/doc/*/changelog")
if(files)
    execute_process(COMMAND gzip -9n ${files} COMMAND_ERROR_IS_FATAL ANY)
endif()
