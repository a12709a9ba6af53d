# What `cmake --install` puts where, by component:
#
#   runtime  the shared library, and the libsyslog that it needs unless the machine has its own
#   dev      headers, static libraries, the CMake package, the pkg-config file, the gdb commands
#   tools    the log daemon, the commands and their completion by the shell
#   java     the jar
#   doc      the pages and the sources of the examples
#
# The result may be moved as a whole: what is installed finds the rest by its own place.
include(CMakePackageConfigHelpers)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/velorin-util)
set(documents ${CMAKE_INSTALL_DOCDIR})

# ---- The libraries ----

set(libraries velorin-util velorin-util-static syslog_client)
if(NOT VELORIN_LIBSYSLOG)
  list(APPEND libraries velorin_syslog)
  set_target_properties(velorin_syslog PROPERTIES EXPORT_NAME libsyslog)
  install(TARGETS velorin_syslog_static
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
endif()
install(TARGETS ${libraries} EXPORT velorin-util
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/velorin ${PROJECT_SOURCE_DIR}/include/zam
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# ---- How other projects find them ----

install(EXPORT velorin-util NAMESPACE velorin:: FILE velorin-util-targets.cmake
  DESTINATION ${package} COMPONENT dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velorin-util-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/velorin-util-config.cmake
  ${PROJECT_BINARY_DIR}/velorin-util-config-version.cmake
  DESTINATION ${package} COMPONENT dev)

set(pc_folder ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${pc_folder} OUTPUT_VARIABLE prefix)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${pc_folder}
  OUTPUT_VARIABLE includedir)
configure_file(${PROJECT_SOURCE_DIR}/cmake/velorin-util.pc.in ${PROJECT_BINARY_DIR}/velorin-util.pc
  @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velorin-util.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# ---- Tools ----

# install_tools(KIND TARGET...): programs, as far as they are built, into the folder of this KIND.
function(install_tools kind)
  set(folder ${CMAKE_INSTALL_FULL_${kind}})
  cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${folder}
    OUTPUT_VARIABLE libraries)
  foreach(tool ${ARGN})
    if(TARGET ${tool})
      # A place below the programs' own folder, in the build tree too: what is installed has the
      # same bytes wherever it was built.
      set_target_properties(${tool} PROPERTIES
        BUILD_RPATH_USE_ORIGIN ON INSTALL_RPATH "\$ORIGIN/${libraries}")
      install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_${kind}} COMPONENT tools)
    endif()
  endforeach()
endfunction()
install_tools(BINDIR ad_debugctl ad_crash ad_logview)
install_tools(SBINDIR ad_logd)

# bash-completion looks for a file with the command's name.
if(VELORIN_TOOLS)
  foreach(tool ad_crash ad_debugctl ad_logd ad_logview)
    install(FILES ${PROJECT_SOURCE_DIR}/utils/completion/velorin-util.bash
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${tool}
      COMPONENT tools)
  endforeach()
endif()

# ---- Java and documents ----

if(TARGET velorin_jar)
  get_target_property(jar velorin_jar JAR_FILE)
  install(FILES ${jar} DESTINATION ${CMAKE_INSTALL_DATADIR}/java COMPONENT java)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGES.md
  DESTINATION ${documents} COMPONENT doc)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
  DESTINATION ${documents} COMPONENT doc)
