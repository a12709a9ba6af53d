# What every target of this project is compiled and linked with, and the helpers that declare targets.

# The same sources give the same bytes in every folder: compiled files name the sources from the top
# of the project, and the folder of the build not at all. The compiler tries the last mapping first,
# so the folder that lies within the other one comes last.
set(prefix_maps -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_BINARY_DIR}=.)
cmake_path(IS_PREFIX CMAKE_BINARY_DIR ${PROJECT_SOURCE_DIR} sources_are_in_build)
if(sources_are_in_build)
  list(REVERSE prefix_maps)
endif()
# Archives without times and users, wherever the tools' own default is another one.
foreach(language C CXX)
  set(CMAKE_${language}_ARCHIVE_CREATE "<CMAKE_AR> qcD <TARGET> <LINK_FLAGS> <OBJECTS>")
  set(CMAKE_${language}_ARCHIVE_APPEND "<CMAKE_AR> qD <TARGET> <LINK_FLAGS> <OBJECTS>")
  set(CMAKE_${language}_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")
endforeach()

add_library(velorin_flags INTERFACE)
target_compile_options(velorin_flags INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wformat=2
  $<$<BOOL:${VELORIN_WERROR}>:-Werror>
  -fno-omit-frame-pointer
  -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
  ${prefix_maps})
# 64-bit file offsets everywhere; time_t keeps the target's own width.
target_compile_definitions(velorin_flags INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64)
target_link_options(velorin_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)

if(VELORIN_SANITIZE)
  target_compile_options(velorin_flags INTERFACE
    -fsanitize=${VELORIN_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(velorin_flags INTERFACE -fsanitize=${VELORIN_SANITIZE})
elseif(VELORIN_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    message(FATAL_ERROR "VELORIN_COVERAGE is for clang: use the preset coverage")
  endif()
  # %c: the counters are the file itself, mapped when the program is loaded, so that nothing is lost
  # with a process that is killed, becomes another program or ends by _exit. %m: all processes of a
  # program or library share one file, whose name does not depend on their environment.
  set(profile -fprofile-instr-generate=${PROJECT_BINARY_DIR}/profiles/%c%m.profraw)
  target_compile_options(velorin_flags INTERFACE
    ${profile} -fcoverage-mapping -fprofile-update=atomic
    "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(velorin_flags INTERFACE ${profile})
else()
  target_compile_options(velorin_flags INTERFACE -fstack-protector-strong -fstack-clash-protection)
  # FORTIFY needs the optimizer, which a project around this one may leave off.
  target_compile_definitions(velorin_flags INTERFACE
    $<$<NOT:$<OR:$<CONFIG:Debug>,$<STREQUAL:$<CONFIG>,>>>:_FORTIFY_SOURCE=2>)
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

# A shared library names all libraries that it needs. Not for fuzzing: clang leaves a shared library's
# sanitizer symbols to the program.
add_library(velorin_shared_flags INTERFACE)
target_link_options(velorin_shared_flags INTERFACE $<$<NOT:$<BOOL:${VELORIN_FUZZ}>>:-Wl,-z,defs>)

# velorin_program(NAME SOURCE...): a program of this project, linked with the shared library.
function(velorin_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE velorin_flags velorin-util)
endfunction()
