velorin_bench(playlist)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  target_include_directories(playlist_bench SYSTEM PRIVATE /usr/include/libxml2)
  target_link_libraries(playlist_bench PRIVATE pugixml expat xml2)
else()
  # The 32-bit packages that scripts/bench unpacks; the headers of pugixml and libxml2 serve both.
  set(peers ${PROJECT_SOURCE_DIR}/build/i386-bench)
  set(libraries ${peers}/usr/lib/i386-linux-gnu)
  target_include_directories(playlist_bench SYSTEM PRIVATE
    ${peers}/usr/include ${peers}/usr/include/i386-linux-gnu ${peers}/usr/include/libxml2)
  target_link_libraries(playlist_bench PRIVATE
    ${libraries}/libpugixml.so.1 ${peers}/lib/i386-linux-gnu/libexpat.so.1
    ${libraries}/libxml2.so.2)
  # An old-style path is also searched for what the packages themselves need.
  target_link_options(playlist_bench PRIVATE
    -Wl,--disable-new-dtags,-rpath,${libraries}:${peers}/lib/i386-linux-gnu)
endif()
