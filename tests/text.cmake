velorin_test(String_test LABEL text)

add_test(NAME examples.text_numbers
  COMMAND bash -c "set -o pipefail; \"$1\" | diff \"$2\" -" bash
    $<TARGET_FILE:example_text_numbers> ${CMAKE_CURRENT_SOURCE_DIR}/expected/text_numbers.txt)
set_tests_properties(examples.text_numbers PROPERTIES LABELS text TIMEOUT 60)
