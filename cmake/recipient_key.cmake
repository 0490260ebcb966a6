# The recipient of the archives: the key that TARNWICK_ARCHIVE_PUBLIC_KEY names, or a development pair that the build
# makes for itself in the build folder, once. What is sealed to a development key can be opened by everybody who has
# the build folder, so that such a build is neither installed nor packaged unless somebody insists.

# Sets `result` to the key line in `text` without its comment. Anything but one line with a P-256 key is an error.
function(tarnwick_recipient_line text result)
  string(STRIP "${text}" text)
  # The base64 text always starts alike: type, curve, and the length and form of the point (uncompressed).
  set(start "AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBB[A-P]")
  if(NOT text MATCHES "^(ecdsa-sha2-nistp256 ${start}[A-Za-z0-9+/]+=)([ \t][^\r\n]*)?$")
    message(FATAL_ERROR "Not one line with an ecdsa-sha2-nistp256 public key: \"${text}\"")
  endif()
  set(line "${CMAKE_MATCH_1}")
  string(LENGTH "${line}" length)
  if(NOT length EQUAL 160)
    message(FATAL_ERROR "The recipient's key line has ${length} characters without its comment, not 160")
  endif()
  set(${result} "${line}" PARENT_SCOPE)
endfunction()

if(CMAKE_SCRIPT_MODE_FILE)
  return()
endif()

option(TARNWICK_ALLOW_DEVELOPMENT_KEY "Install and package a build whose archives are sealed to a development key" OFF)

# Sets `result` to the line of the key that the build was given, or to nothing.
function(tarnwick_given_recipient result)
  set(given "${TARNWICK_ARCHIVE_PUBLIC_KEY}")
  if(given STREQUAL "")
    set(${result} "" PARENT_SCOPE)
    return()
  endif()
  if(NOT given MATCHES "^ecdsa-sha2-nistp256")
    get_filename_component(file "${given}" ABSOLUTE BASE_DIR "${PROJECT_SOURCE_DIR}")
    if(NOT EXISTS "${file}" OR IS_DIRECTORY "${file}")
      message(FATAL_ERROR "TARNWICK_ARCHIVE_PUBLIC_KEY is neither a key line nor a file: \"${given}\"")
    endif()
    set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    file(READ "${file}" given LIMIT 4096)
  endif()
  tarnwick_recipient_line("${given}" line)
  set(${result} "${line}" PARENT_SCOPE)
endfunction()

tarnwick_given_recipient(recipient)
set(info_files ${PROJECT_BINARY_DIR}/share/info.plist ${PROJECT_BINARY_DIR}/share/linux.plist)
set(info_arguments -DTEMPLATES=${PROJECT_SOURCE_DIR}/config -DOUTPUT=${PROJECT_BINARY_DIR}/share
                   -DVERSION=${PROJECT_VERSION})
if(recipient STREQUAL "")
  message(WARNING "TARNWICK_ARCHIVE_PUBLIC_KEY is not set: archives will be sealed to a DEVELOPMENT KEY whose private "
                  "half is in the build folder. Such a build is not for use outside.")
  list(APPEND info_arguments -DPAIR=${PROJECT_BINARY_DIR}/dev-recipient -DQVX=$<TARGET_FILE:qvx>)
  if(NOT TARNWICK_ALLOW_DEVELOPMENT_KEY)
    set(TARNWICK_REFUSAL "This build seals archives to a development key. Set TARNWICK_ARCHIVE_PUBLIC_KEY to the \
recipient's key, or TARNWICK_ALLOW_DEVELOPMENT_KEY to install or package it all the same.")
    # Asked again at install time, so that one installation can be allowed without changing the build.
    install(CODE "if(NOT TARNWICK_ALLOW_DEVELOPMENT_KEY)
                    message(FATAL_ERROR \"${TARNWICK_REFUSAL}\")
                  endif()" ALL_COMPONENTS)
  endif()
else()
  list(APPEND info_arguments "-DRECIPIENT=${recipient}")
endif()

add_custom_command(
  OUTPUT ${info_files}
  COMMAND ${CMAKE_COMMAND} ${info_arguments} -P ${CMAKE_CURRENT_LIST_DIR}/write_info_files.cmake
  DEPENDS ${PROJECT_SOURCE_DIR}/config/info.plist.in ${PROJECT_SOURCE_DIR}/config/linux.plist.in
          ${CMAKE_CURRENT_LIST_DIR}/write_info_files.cmake ${CMAKE_CURRENT_LIST_FILE}
  COMMENT "Writing the configuration with its recipient key"
  VERBATIM)
add_custom_target(tarnwick_info_files ALL DEPENDS ${info_files})

# For the executable `tarnwick` alone: no other program has an information dictionary.
add_library(tarnwick_info_object OBJECT ${PROJECT_SOURCE_DIR}/src/platform/info_section.S)
target_include_directories(tarnwick_info_object PRIVATE ${PROJECT_BINARY_DIR}/share)
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/platform/info_section.S PROPERTIES
                            OBJECT_DEPENDS ${PROJECT_BINARY_DIR}/share/info.plist)
add_dependencies(tarnwick_info_object tarnwick_info_files)
