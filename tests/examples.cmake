velorin_test(examples_test LABEL diagnostics DEPENDS
  example_log_lines example_report_failures)
