velorin_test(sd_mpool_test LABEL memory SOURCES support/memory_calls.cc)
target_compile_definitions(sd_mpool_test PRIVATE
  $<$<BOOL:${VELORIN_PLAIN_MUTEX}>:VELORIN_PLAIN_MUTEX>)
velorin_test(sd_mgmt_test LABEL memory SOURCES support/memory_calls.cc support/crash_calls.cc)
velorin_test(simplelock_test LABEL memory)

# Processes of both widths share one lock: each tree's test starts the program of the other tree.
if(NOT VELORIN_SANITIZE AND NOT VELORIN_COVERAGE)
  velorin_program(lock_peer lock_peer.cc)
  target_include_directories(lock_peer PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  add_dependencies(simplelock_test lock_peer)
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(other_width x86)
  else()
    set(other_width x86-64)
  endif()
  target_compile_definitions(simplelock_test PRIVATE
    VELORIN_OTHER_WIDTH="${PROJECT_BINARY_DIR}/../${other_width}/bin/lock_peer")
endif()

velorin_program(gdb_program gdb_program.cc)
velorin_test(gdb_test LABEL memory DEPENDS gdb_program)

add_test(NAME examples.memory_pools
  COMMAND bash -c "set -o pipefail; \"$1\" | diff \"$2\" -" bash
    $<TARGET_FILE:example_memory_pools> ${CMAKE_CURRENT_SOURCE_DIR}/expected/memory_pools.txt)
set_tests_properties(examples.memory_pools PROPERTIES LABELS memory TIMEOUT 60)
