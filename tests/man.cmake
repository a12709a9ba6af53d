# The man pages, and the links of the docs pages that they are made of. Nothing here depends on how
# the library is compiled.
if(VELORIN_SANITIZE OR VELORIN_COVERAGE)
  return()
endif()
find_program(VELORIN_MANDOC mandoc DOC "Checks the man pages")
mark_as_advanced(VELORIN_MANDOC)
if(NOT TARGET velorin_man OR NOT VELORIN_MANDOC)
  message(FATAL_ERROR "The man pages' tests need cmark-gfm, Python 3 and mandoc: run scripts/setup")
endif()
find_package(Python3 REQUIRED COMPONENTS Interpreter)
get_property(make_man_pages GLOBAL PROPERTY velorin_make_man_pages)

# man_check(NAME COMMAND...)
function(man_check name)
  add_test(NAME ${name} COMMAND ${ARGN})
  set_tests_properties(${name} PROPERTIES LABELS man TIMEOUT 300)
endfunction()

set(checks ${CMAKE_CURRENT_SOURCE_DIR}/man)
set(man_pages ${PROJECT_BINARY_DIR}/man)
man_check(man.lint bash ${checks}/check_lint ${man_pages})
man_check(man.names ${Python3_EXECUTABLE} ${checks}/check_names.py ${PROJECT_SOURCE_DIR}
  ${man_pages})
man_check(man.text ${Python3_EXECUTABLE} ${checks}/check_text.py ${PROJECT_SOURCE_DIR} ${man_pages}
  ${VELORIN_CMARK})
man_check(man.reproducible bash ${checks}/check_reproducible ${PROJECT_SOURCE_DIR} ${man_pages}
  ${make_man_pages})
man_check(docs.links ${Python3_EXECUTABLE} ${checks}/check_links.py ${PROJECT_SOURCE_DIR})
