# Pages that list what the sources and the tests hold, compared with them.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
foreach(check messages sharp_edges)
  add_test(NAME docs.${check}
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/docs/${check}.py ${PROJECT_SOURCE_DIR})
endforeach()
add_test(NAME docs.checks_find_what_is_wrong
  COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/docs/checks_test.py)
set_tests_properties(docs.messages docs.sharp_edges docs.checks_find_what_is_wrong PROPERTIES
  LABELS docs TIMEOUT 60)
