# The appliance's own client records in a way of its own.
if(NOT VELORIN_LIBSYSLOG)
  velorin_test(libsyslog_test LABEL diagnostics
    SOURCES support/syslog_listener.cc LIBS syslog_client)
endif()
