velorin_test(StringReal_test LABEL text)
velorin_test(StringText_test LABEL text)

add_test(NAME examples.text_readable
  COMMAND bash -c "set -o pipefail; env -u VELORIN_HOME \"$1\" | diff \"$2\" -" bash
    $<TARGET_FILE:example_text_readable> ${CMAKE_CURRENT_SOURCE_DIR}/expected/text_readable.txt)
set_tests_properties(examples.text_readable PROPERTIES LABELS text TIMEOUT 60)
