# Which texts the build takes for a recipient. A refusal ends cmake, so each text is put to a cmake of its own.
include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/recipient_key.cmake)

if(DEFINED TEXT)
  tarnwick_recipient_line("${TEXT}" line)
  file(WRITE "${ANSWER}" "${line}")
  return()
endif()

string(REPEAT "Q" 85 point)
set(key "ecdsa-sha2-nistp256 AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBA${point}=")
string(REPLACE "BBBA" "BBCA" compressed "${key}")
string(REPLACE "nistp256 A" "nistp384 A" other_type "${key}")
string(REPLACE "=" "" unpadded "${key}")
string(REPLACE "=" "<=" foreign_byte "${key}")
set(ANSWER $ENV{TMPDIR})
if(NOT ANSWER)
  set(ANSWER /tmp)
endif()
string(RANDOM LENGTH 12 name)
set(ANSWER "${ANSWER}/recipient-${name}")

function(expect text wanted)
  file(REMOVE "${ANSWER}")
  execute_process(COMMAND ${CMAKE_COMMAND} "-DTEXT=${text}" "-DANSWER=${ANSWER}"
                          -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
                  RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
  set(answer "refused")
  if(status EQUAL 0)
    file(READ "${ANSWER}" answer)
  endif()
  file(REMOVE "${ANSWER}")
  if(NOT answer STREQUAL wanted)
    message(SEND_ERROR "\"${text}\" gave \"${answer}\"")
  endif()
endfunction()

expect("${key}" "${key}")
expect("${key} service@office <x>&\n" "${key}")
foreach(text "" "nonsense" "${key}A" "A${key}" "${key}\n${key}" "${key}<x>" "${compressed}" "${other_type}"
             "${unpadded}" "${foreign_byte}" "ecdsa-sha2-nistp256" "ecdsa-sha2-nistp256 ${point}=")
  expect("${text}" "refused")
endforeach()
