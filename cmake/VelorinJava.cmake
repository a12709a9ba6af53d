# The JDK: its headers for the native methods, the same for both widths; nothing is linked from it.
find_package(Java 11 COMPONENTS Development)
if(Java_JAVAC_EXECUTABLE)
  file(REAL_PATH ${Java_JAVAC_EXECUTABLE} javac)
  cmake_path(GET javac PARENT_PATH jdk_bin)
  find_path(VELORIN_JNI jni.h PATHS ${jdk_bin}/../include NO_DEFAULT_PATH)
endif()
if(NOT Java_FOUND OR NOT VELORIN_JNI)
  message(FATAL_ERROR "No JDK 11 or newer with its jni.h, which the native methods of the Java "
    "classes velorin.Logger and velorin.KuSyslogApi need. Install one (Debian: "
    "openjdk-17-jdk-headless), or configure with -DVELORIN_JAVA=OFF: the library then has no native "
    "methods, and there is no jar.")
endif()
include(UseJava)
set(CMAKE_JAVA_COMPILE_FLAGS --release 11 -Xlint:all -Werror)
