# What `cmake --install` makes, moved to another place: consumers in C and C++, the tools, the jar.
# Consumers of an instrumented library would have to be instrumented too.
if(VELORIN_SANITIZE OR VELORIN_COVERAGE OR VELORIN_LIBSYSLOG)
  return()
endif()

set(install_java ${Java_JAVA_EXECUTABLE})
set(install_java_libraries)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Where scripts/setup unpacks the 32-bit Java runtime.
  set(install_jre ${PROJECT_SOURCE_DIR}/build/i386-jre)
  set(install_java ${install_jre}/usr/lib/jvm/java-17-openjdk-i386/bin/java)
  set(install_java_libraries ${install_jre}/lib/i386-linux-gnu)
endif()
set(install_environment
  INSTALL_SOURCE=${PROJECT_SOURCE_DIR}
  INSTALL_BUILD=${PROJECT_BINARY_DIR}
  INSTALL_WORK=${CMAKE_CURRENT_BINARY_DIR}/install
  INSTALL_ELSEWHERE=${CMAKE_CURRENT_BINARY_DIR}/install-elsewhere
  INSTALL_LIBDIR=${CMAKE_INSTALL_LIBDIR}
  INSTALL_BUILD_TYPE=${CMAKE_BUILD_TYPE}
  INSTALL_CC=${CMAKE_C_COMPILER}
  INSTALL_CXX=${CMAKE_CXX_COMPILER}
  INSTALL_CFLAGS=${CMAKE_C_FLAGS}
  INSTALL_CXXFLAGS=${CMAKE_CXX_FLAGS}
  INSTALL_JAVAC=${Java_JAVAC_EXECUTABLE}
  INSTALL_JAR=${Java_JAR_EXECUTABLE}
  INSTALL_JAVA=${install_java}
  INSTALL_JAVA_LIBRARIES=${install_java_libraries})

# install_check(NAME CHECK LABEL [PROPERTY VALUE ...]): a CTest test that makes one of the checks.
function(install_check name check label)
  add_test(NAME install.${name}
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/install/check_install ${check})
  set_tests_properties(install.${name} PROPERTIES
    LABELS ${label} TIMEOUT 300 SKIP_RETURN_CODE 77 ENVIRONMENT "${install_environment}" ${ARGN})
endfunction()
install_check(a_prefix_is_filled_and_moved stage install FIXTURES_SETUP installed)
foreach(check
    components names_no_folder_of_the_build needs_only_system_libraries headers_compile_alone
    pkg_config_c pkg_config_cxx cmake_c cmake_cxx examples tools_run java_loads_library gdb_commands)
  install_check(${check} ${check} install FIXTURES_REQUIRED installed)
endforeach()
# Compiles the library once more.
install_check(subdirectory_elsewhere_gives_the_same_bytes subdirectory install-slow TIMEOUT 1200)
