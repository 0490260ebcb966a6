# Run by cpack before it packs, and again when it has packed: the caller's umask must not reach the folders of other
# people's systems, nor the bytes of the package.
if(NOT CPACK_PACKAGE_FILES)
  execute_process(COMMAND find "${CPACK_TEMPORARY_DIRECTORY}" -type d -exec chmod 755 {} +
                  COMMAND_ERROR_IS_FATAL ANY)
endif()
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(folder "${package}.members")
  file(MAKE_DIRECTORY "${folder}")
  execute_process(COMMAND ar x "${package}" WORKING_DIRECTORY "${folder}" COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE "${package}")
  execute_process(COMMAND ar rcDS "${package}" debian-binary control.tar.gz data.tar.gz WORKING_DIRECTORY "${folder}"
                  COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${folder}")
endforeach()
