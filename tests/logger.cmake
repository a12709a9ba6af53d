velorin_test(Exception_test LABEL diagnostics SOURCES support/failing_new.cc LIBS syslog_recorder)
velorin_test(Logger_test LABEL diagnostics SOURCES support/system_calls.cc LIBS syslog_recorder)
velorin_test(ad_debug_dump_test LABEL diagnostics LIBS syslog_recorder)
