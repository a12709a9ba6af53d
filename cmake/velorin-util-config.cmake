# find_package(velorin-util): the targets velorin::velorin-util and velorin::velorin-util-static.
include(${CMAKE_CURRENT_LIST_DIR}/velorin-util-targets.cmake)
