velorin_test(Launcher_test LABEL process SOURCES support/process_calls.cc
  DEPENDS thttpd_stand_in example_run_program)
