velorin_bench(memory)
# A spin lock taken and released is a handful of instructions: none may win or lose by the place of
# its loop.
target_compile_options(memory_bench PRIVATE
  -falign-functions=64 -falign-loops=64 -falign-jumps=64)
# The peers' calls without stubs: the fastest there are.
target_compile_options(memory_bench PRIVATE -fno-plt)
# Only the run-time packages of the allocators: both widths have them under the same names.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  find_library(jemalloc libjemalloc.so.2 REQUIRED)
  find_library(mimalloc libmimalloc.so.2 REQUIRED)
else()
  # The 32-bit packages that scripts/bench unpacks; they need nothing that the compiler lacks.
  set(jemalloc ${PROJECT_SOURCE_DIR}/build/i386-bench/usr/lib/i386-linux-gnu/libjemalloc.so.2)
  set(mimalloc ${PROJECT_SOURCE_DIR}/build/i386-bench/usr/lib/i386-linux-gnu/libmimalloc.so.2)
  cmake_path(GET jemalloc PARENT_PATH folder)
  target_link_options(memory_bench PRIVATE -Wl,-rpath,${folder})
  # How Concurrency Kit's headers are told of the processor.
  target_compile_definitions(memory_bench PRIVATE __x86__)
endif()
# Linked, as their thread-local variables have no room in a process that loads them later; behind the
# C library, so that malloc stays its own for everybody else.
target_link_libraries(memory_bench PRIVATE
  -Wl,--push-state,--no-as-needed c ${jemalloc} ${mimalloc} -Wl,--pop-state)
