# Linked with the static library for the kernels of SHA-1, and because a shared one is ready before
# any object of the program is made.
velorin_test(digests_test LABEL digests STATIC SOURCES support/system_calls.cc)
target_include_directories(digests_test PRIVATE ${PROJECT_SOURCE_DIR}/utils/velorin-util)

velorin_test(first_calls_test LABEL digests)

foreach(example digest_md5 digest_sha digest_Md5 digest_hashmisc)
  add_test(NAME examples.${example}
    COMMAND bash -c "set -o pipefail; \"$1\" | diff \"$2\" -" bash
      $<TARGET_FILE:example_${example}> ${CMAKE_CURRENT_SOURCE_DIR}/expected/${example}.txt)
  set_tests_properties(examples.${example} PROPERTIES LABELS digests TIMEOUT 60)
endforeach()
target_compile_definitions(digests_test PRIVATE $<$<BOOL:${VELORIN_COVERAGE}>:VELORIN_COVERAGE>)
