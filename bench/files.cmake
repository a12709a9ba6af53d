velorin_bench(files)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  find_path(glib_include glib.h PATH_SUFFIXES glib-2.0 REQUIRED)
  find_library(glib glib-2.0 REQUIRED)
  cmake_path(GET glib PARENT_PATH libraries)
  target_include_directories(files_bench SYSTEM PRIVATE
    ${glib_include} ${libraries}/glib-2.0/include)
  target_link_libraries(files_bench PRIVATE ${glib} inih confuse)
else()
  # The 32-bit packages that scripts/bench unpacks.
  set(peers ${PROJECT_SOURCE_DIR}/build/i386-bench)
  set(libraries ${peers}/usr/lib/i386-linux-gnu)
  target_include_directories(files_bench SYSTEM PRIVATE
    ${peers}/usr/include ${peers}/usr/include/glib-2.0 ${libraries}/glib-2.0/include)
  target_link_libraries(files_bench PRIVATE
    ${libraries}/libglib-2.0.so.0 ${libraries}/libinih.so.1 ${libraries}/libconfuse.so.2)
  # An old-style path is also searched for what the packages themselves need.
  target_link_options(files_bench PRIVATE
    -Wl,--disable-new-dtags,-rpath,${libraries}:${peers}/lib/i386-linux-gnu)
endif()
