# What every target of this project is compiled and linked with, and the helpers that declare targets.

add_library(velorin_flags INTERFACE)
target_compile_options(velorin_flags INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wformat=2
  $<$<BOOL:${VELORIN_WERROR}>:-Werror>
  -fno-omit-frame-pointer
  -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
# 64-bit file offsets everywhere; time_t keeps the target's own width.
target_compile_definitions(velorin_flags INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64)
target_link_options(velorin_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)

if(VELORIN_SANITIZE)
  target_compile_options(velorin_flags INTERFACE
    -fsanitize=${VELORIN_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(velorin_flags INTERFACE -fsanitize=${VELORIN_SANITIZE})
elseif(VELORIN_COVERAGE)
  target_compile_options(velorin_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(velorin_flags INTERFACE --coverage)
else()
  target_compile_options(velorin_flags INTERFACE -fstack-protector-strong -fstack-clash-protection)
  # FORTIFY needs the optimizer.
  target_compile_definitions(velorin_flags INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
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
