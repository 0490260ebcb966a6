# How every target of ours is compiled: the language, the warnings, the sanitizer.
add_library(tarnwick_settings INTERFACE)
target_compile_features(tarnwick_settings INTERFACE cxx_std_20)
target_include_directories(tarnwick_settings INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(tarnwick_settings INTERFACE _FILE_OFFSET_BITS=64)
target_link_libraries(tarnwick_settings INTERFACE Threads::Threads)
if(TARNWICK_SANITIZE)
  target_compile_options(tarnwick_settings INTERFACE -fsanitize=${TARNWICK_SANITIZE} -fno-omit-frame-pointer
                                                    -fno-sanitize-recover=all)
  target_compile_definitions(tarnwick_settings INTERFACE _GLIBCXX_ASSERTIONS)
  target_link_options(tarnwick_settings INTERFACE -fsanitize=${TARNWICK_SANITIZE})
endif()
if(TARNWICK_COVERAGE)
  # Threads may lose a count: only whether a line was run matters. Atomic counts need six times the time of all else.
  target_compile_options(tarnwick_settings INTERFACE --coverage -fprofile-update=single)
  target_link_options(tarnwick_settings INTERFACE --coverage)
endif()

# An optimised build is what people run as root: hardened, and the same bytes in whatever folder it is made. The
# sanitizers bring checks of their own, which some of these switch off.
include(CheckPIESupported)
check_pie_supported()
if(CMAKE_BUILD_TYPE MATCHES "Rel" AND NOT TARNWICK_SANITIZE)
  set(TARNWICK_HARDENED ON)
  add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
  target_compile_options(tarnwick_settings INTERFACE -fstack-protector-strong -fstack-clash-protection
                                                     -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  # The landing pads are in the code; the program itself is not marked for them, since Debian's start files are not.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i.86")
    target_compile_options(tarnwick_settings INTERFACE -fcf-protection=full)
  endif()
  target_link_options(tarnwick_settings INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack,-z,separate-code)
endif()

add_library(tarnwick_warnings INTERFACE)
target_compile_options(tarnwick_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
                                                   -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual)
if(TARNWICK_WERROR)
  target_compile_options(tarnwick_warnings INTERFACE -Werror)
endif()

# tarnwick_library(NAME SOURCES... [LINK libraries...]): one static library for one folder of src/.
function(tarnwick_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LINK")
  add_library(${name} STATIC ${arg_UNPARSED_ARGUMENTS})
  # In a unity build: clang-tidy has nothing to say of how the sources are put together.
  set_target_properties(${name} PROPERTIES
    UNITY_BUILD_CODE_BEFORE_INCLUDE "// NOLINTNEXTLINE(bugprone-suspicious-include)")
  target_link_libraries(${name} PUBLIC tarnwick_settings ${arg_LINK} PRIVATE tarnwick_warnings)
endfunction()

# tarnwick_program(NAME SOURCES... [LINK libraries...]): one executable in bin/.
function(tarnwick_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LINK")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  set_target_properties(${name} PROPERTIES UNITY_BUILD OFF)  # clang-tidy would take its one source for a header
  target_link_libraries(${name} PRIVATE tarnwick_settings tarnwick_warnings ${arg_LINK})
  target_compile_definitions(${name} PRIVATE TARNWICK_VERSION="${PROJECT_VERSION}")
endfunction()
