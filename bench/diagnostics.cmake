velorin_bench(diagnostics)
target_compile_definitions(diagnostics_bench PRIVATE FMT_HEADER_ONLY SPDLOG_HEADER_ONLY)
# A suppressed statement takes about a cycle: none may win or lose one by the place of its loop.
target_compile_options(diagnostics_bench PRIVATE
  -falign-functions=64 -falign-loops=64 -falign-jumps=64)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  target_link_libraries(diagnostics_bench PRIVATE glog systemd)
else()
  # The 32-bit packages that scripts/bench unpacks; their headers serve both widths.
  set(peers ${PROJECT_SOURCE_DIR}/build/i386-bench)
  set(folders ${peers}/usr/lib/i386-linux-gnu:${peers}/lib/i386-linux-gnu)
  target_link_libraries(diagnostics_bench PRIVATE
    ${peers}/usr/lib/i386-linux-gnu/libglog.so.1 ${peers}/usr/lib/i386-linux-gnu/libsystemd.so.0)
  # An old-style path is also searched for what the packages themselves need.
  target_link_options(diagnostics_bench PRIVATE -Wl,--disable-new-dtags,-rpath,${folders})
endif()
