# Linked with the static library for the loops of each instruction set, and because a shared one is
# ready before any object of the program is made.
velorin_test(base64_test LABEL digests STATIC)
target_include_directories(base64_test PRIVATE ${PROJECT_SOURCE_DIR}/utils/velorin-util)

add_test(NAME examples.base64_text
  COMMAND bash -c "set -o pipefail; \"$1\" | diff \"$2\" -" bash
    $<TARGET_FILE:example_base64_text> ${CMAKE_CURRENT_SOURCE_DIR}/expected/base64_text.txt)
set_tests_properties(examples.base64_text PROPERTIES LABELS digests TIMEOUT 60)
