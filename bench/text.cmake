velorin_bench(text)
# The distribution packages fmt's library for one width only; its headers serve both.
target_compile_definitions(text_bench PRIVATE FMT_HEADER_ONLY)
# Of curl's library only the reader of dates is wanted, without what else it is linked to.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  target_include_directories(text_bench SYSTEM PRIVATE /usr/include/apr-1.0)
  target_link_libraries(text_bench PRIVATE aprutil-1 apr-1
    /usr/lib/x86_64-linux-gnu/libcurl.a)
else()
  # The 32-bit packages that scripts/bench unpacks; only apr.h differs by width.
  set(peers ${PROJECT_SOURCE_DIR}/build/i386-bench)
  set(folders ${peers}/usr/lib/i386-linux-gnu:${peers}/lib/i386-linux-gnu)
  target_include_directories(text_bench SYSTEM PRIVATE
    ${peers}/usr/include/apr-1.0 /usr/include/apr-1.0 /usr/include/x86_64-linux-gnu)
  target_link_libraries(text_bench PRIVATE
    ${peers}/usr/lib/i386-linux-gnu/libaprutil-1.so.0
    ${peers}/usr/lib/i386-linux-gnu/libapr-1.so.0
    ${peers}/usr/lib/i386-linux-gnu/libcurl.a)
  # An old-style path is also searched for what the packages themselves need.
  target_link_options(text_bench PRIVATE -Wl,--disable-new-dtags,-rpath,${folders})
endif()
