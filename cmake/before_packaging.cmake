# Read by cpack before it does anything.
if(CPACK_TARNWICK_REFUSAL)
  message(FATAL_ERROR "${CPACK_TARNWICK_REFUSAL}")
endif()
foreach(decision IN LISTS CPACK_TARNWICK_UNDECIDED)
  message(WARNING "NOT FOR HANDING OUT, the owners have yet to decide ${decision}.")
endforeach()

# The times in the package are those of the commit, so that it can be made again byte for byte. Files that are younger
# than that do not exist as far as the package tells.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND git -C "${CPACK_TARNWICK_SOURCE_DIR}" log -1 --format=%ct OUTPUT_VARIABLE epoch
                  OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "The source is no git clone: set SOURCE_DATE_EPOCH to the time that the package shall carry.")
  endif()
  set(ENV{SOURCE_DATE_EPOCH} "${epoch}")
endif()
