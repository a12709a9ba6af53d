velorin_bench(digests)
# The portable code of SHA-1, which the library does not export, comes from the static library.
target_sources(digests_bench PRIVATE base64_contests.cc digest_contests.cc digest_peers.cc)
target_include_directories(digests_bench PRIVATE ${PROJECT_SOURCE_DIR}/utils/velorin-util)
target_link_libraries(digests_bench PRIVATE velorin-util-static)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  find_path(apr_include apr_base64.h PATH_SUFFIXES apr-1.0 apr-1 REQUIRED)
  find_path(glib_include glib.h PATH_SUFFIXES glib-2.0 REQUIRED)
  find_library(glib glib-2.0 REQUIRED)
  cmake_path(GET glib PARENT_PATH libraries)
  target_include_directories(digests_bench SYSTEM PRIVATE
    ${apr_include} ${glib_include} ${libraries}/glib-2.0/include)
  target_link_libraries(digests_bench PRIVATE crypto nettle ${glib} aprutil-1 apr-1)
else()
  # The 32-bit packages that scripts/bench unpacks, headers included: some hold the target's widths.
  set(peers ${PROJECT_SOURCE_DIR}/build/i386-bench)
  set(libraries ${peers}/usr/lib/i386-linux-gnu)
  target_include_directories(digests_bench SYSTEM PRIVATE
    ${peers}/usr/include ${peers}/usr/include/i386-linux-gnu ${peers}/usr/include/apr-1.0
    ${peers}/usr/include/glib-2.0 ${libraries}/glib-2.0/include)
  target_link_libraries(digests_bench PRIVATE
    ${libraries}/libcrypto.so.3 ${libraries}/libnettle.so.8 ${libraries}/libglib-2.0.so.0
    ${libraries}/libaprutil-1.so.0 ${libraries}/libapr-1.so.0)
  # An old-style path is also searched for what the packages themselves need.
  target_link_options(digests_bench PRIVATE
    -Wl,--disable-new-dtags,-rpath,${libraries}:${peers}/lib/i386-linux-gnu)
endif()
