velorin_test(ad_crash_test LABEL process DEPENDS ad_crash)

# Programs whose traces are decoded: loaded anywhere, at fixed addresses, and with names for glibc to
# find. Sanitizers and coverage would change what their crash looks like.
function(ad_crash_victim name property value)
  add_executable(${name} ad_crash_victim.cc)
  target_compile_options(${name} PRIVATE -Wall -Wextra -O1 -g -fno-omit-frame-pointer
    -fno-optimize-sibling-calls -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
  target_compile_definitions(${name} PRIVATE _GNU_SOURCE)
  target_link_options(${name} PRIVATE -Wl,--build-id=sha1)
  set_target_properties(${name} PROPERTIES ${property} ${value})
  add_dependencies(ad_crash_test ${name})
endfunction()
ad_crash_victim(ad_crash_victim POSITION_INDEPENDENT_CODE ON)
ad_crash_victim(ad_crash_victim_fixed POSITION_INDEPENDENT_CODE OFF)
ad_crash_victim(ad_crash_victim_exported ENABLE_EXPORTS ON)
