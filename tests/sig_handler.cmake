# A program that crashes, for tests that need one of its own; found and copied under other names.
velorin_program(crash_victim crash_victim.cc)

velorin_test(sig_handler_test LABEL process SOURCES support/crash_calls.cc DEPENDS crash_victim)
