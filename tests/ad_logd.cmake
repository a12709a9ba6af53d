velorin_test(ad_logd_test LABEL diagnostics DEPENDS ad_logd)
velorin_test(ad_logd_service_test LABEL diagnostics SOURCES support/syslog_listener.cc DEPENDS ad_logd)
# Sanitizers bring an allocator of their own.
if(NOT VELORIN_SANITIZE)
  add_library(ad_logd_malloc MODULE ad_logd_malloc.cc)
  target_link_libraries(ad_logd_malloc PRIVATE velorin_flags)
  add_dependencies(ad_logd_test ad_logd_malloc)
  target_compile_definitions(ad_logd_test PRIVATE
    VELORIN_MALLOC_COUNTER="$<TARGET_FILE:ad_logd_malloc>")
endif()
