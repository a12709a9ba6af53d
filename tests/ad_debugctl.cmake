velorin_test(ad_debugctl_test LABEL diagnostics DEPENDS ad_debugctl)

# Processes that ad_debugctl shows and signals. The static one has lost its symbols, as programs of
# packages have, and has a name that the kernel cuts.
velorin_program(ad_debugctl_peer width_peer.cc)
add_executable(ad_debugctl_static_peer width_peer.cc)
target_link_libraries(ad_debugctl_static_peer PRIVATE velorin_flags velorin-util-static)
target_link_options(ad_debugctl_static_peer PRIVATE -Wl,--gc-sections -s)

velorin_test(ad_debugctl_processes_test LABEL diagnostics
  DEPENDS ad_debugctl ad_debugctl_peer ad_debugctl_static_peer)
if(TARGET width_peer)
  add_dependencies(ad_debugctl_processes_test width_peer)
  target_compile_definitions(ad_debugctl_processes_test PRIVATE
    VELORIN_OTHER_WIDTH="${PROJECT_BINARY_DIR}/../${other_width}/bin/width_peer")
endif()

velorin_test(ad_debugctl_doctor_test LABEL diagnostics DEPENDS ad_debugctl ad_logd ad_crash)
