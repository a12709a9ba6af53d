velorin_test(ad_debug_test LABEL diagnostics SOURCES support/system_calls.cc)
velorin_test(ad_debug_log_test LABEL diagnostics SOURCES support/system_calls.cc LIBS syslog_client)

# Processes of both widths share one record and one daemon: each tree's tests start the program of
# the other tree. Only the plain trees come in both widths.
if(NOT VELORIN_SANITIZE AND NOT VELORIN_COVERAGE)
  velorin_program(width_peer width_peer.cc)
  add_dependencies(ad_debug_test width_peer)
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(other_width x86)
  else()
    set(other_width x86-64)
  endif()
  target_compile_definitions(ad_debug_test PRIVATE
    VELORIN_OTHER_WIDTH="${PROJECT_BINARY_DIR}/../${other_width}/bin/width_peer")
endif()
