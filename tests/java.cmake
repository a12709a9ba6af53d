velorin_test(Logger_jni_test LABEL diagnostics LIBS recording_syslog_client)
target_include_directories(Logger_jni_test SYSTEM PRIVATE ${VELORIN_JNI} ${VELORIN_JNI}/linux)

# A sanitizer's runtime must be the first library of its process, which in a JVM it is not: there the
# tests above, which call the native methods with a function table of their own, have to do.
if(NOT VELORIN_SANITIZE)
  add_subdirectory(java)
endif()
