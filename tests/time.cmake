velorin_test(time_str_test LABEL text)

add_test(NAME examples.http_dates
  COMMAND bash -c "set -o pipefail; \"$1\" | diff \"$2\" -" bash
    $<TARGET_FILE:example_http_dates> ${CMAKE_CURRENT_SOURCE_DIR}/expected/http_dates.txt)
set_tests_properties(examples.http_dates PROPERTIES LABELS text TIMEOUT 60)
