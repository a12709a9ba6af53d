# Every public header is compiled by itself, in each language that it is for, when the tests are
# built: once and twice in a unit, all such units linked into one program, and all headers together.

# The headers of the function-based modules, which are for C too.
set(c_headers
  velorin/Launcher
  velorin/ad_debug
  velorin/base64
  velorin/box
  velorin/elc
  velorin/hashmisc
  velorin/md5
  velorin/sd_mgmt
  velorin/sd_mpool
  velorin/sha
  velorin/sig_handler
  velorin/simplelock
  velorin/time_str)

file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/include
  ${PROJECT_SOURCE_DIR}/include/velorin/* ${PROJECT_SOURCE_DIR}/include/zam/*)
foreach(header ${headers})
  file(STRINGS ${PROJECT_SOURCE_DIR}/include/${header} c_linkage REGEX "^extern \"C\" {")
  if(c_linkage AND NOT header IN_LIST c_headers)
    message(FATAL_ERROR
      "${header} declares C functions: add it to c_headers in tests/abi/headers.cmake")
  endif()
endforeach()

# abi_write_unit(FILE LAST_LINE HEADER...): writes a unit that includes the headers in the order
# given. A file that holds the same already stays as it is, so that nothing is compiled again.
function(abi_write_unit file last_line)
  list(TRANSFORM ARGN PREPEND "#include \"" OUTPUT_VARIABLE lines)
  list(TRANSFORM lines APPEND "\"\n")
  list(JOIN lines "" text)
  file(CONFIGURE OUTPUT ${file} CONTENT "${text}${last_line}\n" @ONLY)
endfunction()

# abi_write_units(UNITS EXTENSION HEADER...): writes the units of one language and stores their
# names in UNITS.
function(abi_write_units units extension)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/headers)
  set(files ${folder}/all.${extension})
  abi_write_unit(${files} "int main(void) { return 0; }" ${ARGN})
  foreach(header ${ARGN})
    string(REPLACE "/" "_" name ${header})
    abi_write_unit(${folder}/${name}_once.${extension} "" ${header})
    abi_write_unit(${folder}/${name}_twice.${extension} "" ${header} ${header})
    list(APPEND files ${folder}/${name}_once.${extension} ${folder}/${name}_twice.${extension})
  endforeach()
  set(${units} ${files} PARENT_SCOPE)
endfunction()

function(abi_header_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE abi_user_flags velorin-util)
  set_target_properties(${name} PROPERTIES C_EXTENSIONS OFF CXX_EXTENSIONS OFF)
endfunction()

abi_write_units(c_units c ${c_headers})
abi_write_units(cxx_units cc ${headers})
abi_header_program(abi_headers_c11 ${c_units})
abi_header_program(abi_headers_cxx17 ${cxx_units})
abi_header_program(abi_headers_cxx20 ${cxx_units})
set_target_properties(abi_headers_cxx20 PROPERTIES CXX_STANDARD 20)

# ---- The same by another compiler, where there is one for this target ----

find_program(VELORIN_CLANGXX clang++ DOC "Compiles the public headers a second time")
mark_as_advanced(VELORIN_CLANGXX)
if(NOT VELORIN_CLANGXX)
  message(STATUS "clang++ is not installed: ${CMAKE_CXX_COMPILER_ID} alone compiles the headers")
  return()
endif()
get_target_property(user_flags abi_user_flags INTERFACE_COMPILE_OPTIONS)
set(clang_command ${VELORIN_CLANGXX} ${cxx_flags} ${user_flags} -fsyntax-only ${include_option})

set(probe ${CMAKE_CURRENT_BINARY_DIR}/headers/probe.cc)
file(CONFIGURE OUTPUT ${probe} CONTENT "#include <string>\n" @ONLY)
execute_process(COMMAND ${clang_command} ${probe} RESULT_VARIABLE refused OUTPUT_QUIET ERROR_QUIET)
if(refused)
  message(STATUS
    "clang++ cannot compile for this target: ${CMAKE_CXX_COMPILER_ID} alone compiles the headers")
  return()
endif()

# abi_clang_headers(NAME UNITS OPTION...): a target that is made when clang++ accepts all of the
# units.
function(abi_clang_headers name units)
  set(accepted ${CMAKE_CURRENT_BINARY_DIR}/headers/${name}.accepted)
  list(JOIN ARGN " " options)
  list(TRANSFORM headers PREPEND ${PROJECT_SOURCE_DIR}/include/ OUTPUT_VARIABLE header_files)
  add_custom_command(OUTPUT ${accepted}
    COMMAND ${clang_command} ${ARGN} ${${units}}
    COMMAND ${CMAKE_COMMAND} -E touch ${accepted}
    DEPENDS ${${units}} ${header_files}
    COMMENT "Compiling the public headers with clang++ ${options}")
  add_custom_target(abi_headers_${name} ALL DEPENDS ${accepted})
endfunction()
abi_clang_headers(clang_c11 c_units -x c -std=c11)
abi_clang_headers(clang_cxx17 cxx_units -std=c++17)
abi_clang_headers(clang_cxx20 cxx_units -std=c++20)
