# Run at build time: fills the templates of config/ in. The recipient is RECIPIENT, or else the public half of the
# development pair PAIR.pem, PAIR.pub, which is made by the program QVX when it is not there yet.
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/recipient_key.cmake)

if(NOT RECIPIENT)
  if(NOT EXISTS "${PAIR}.pub")
    execute_process(COMMAND "${QVX}" keygen -o "${PAIR}" COMMAND_ERROR_IS_FATAL ANY)
  endif()
  file(READ "${PAIR}.pub" pair)
  tarnwick_recipient_line("${pair}" RECIPIENT)
  message(NOTICE "****************************************************************************\n"
                 "*** DEVELOPMENT KEY: archives of this build are sealed to the key in\n"
                 "*** ${PAIR}.pub\n"
                 "*** and open with the .pem beside it. Do not hand this build out.\n"
                 "****************************************************************************")
endif()

foreach(name info linux)
  configure_file("${TEMPLATES}/${name}.plist.in" "${OUTPUT}/${name}.plist" @ONLY)
  file(TOUCH "${OUTPUT}/${name}.plist")  # unchanged text must not leave it older than its template
endforeach()
