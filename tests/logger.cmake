velorin_test(Exception_test LABEL diagnostics LIBS syslog_recorder)
velorin_test(Logger_test LABEL diagnostics LIBS syslog_recorder)
velorin_test(ad_debug_dump_test LABEL diagnostics LIBS syslog_recorder)
