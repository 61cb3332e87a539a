# Finds a JDK, for the native methods and the jar. Without one everything else is built.
#
# Sets KVX_JAVA (whether there is one), KVX_JNI_INCLUDES, and the paths of its tools KVX_JAVAC, KVX_JAR, KVX_JAVADOC,
# KVX_JAVA_RUN.

option(KVX_BUILD_JAVA "Build the native methods of the Java classes and the jar, when a JDK of 11 or later is found"
       ${PROJECT_IS_TOP_LEVEL})
set(KVX_JAVA OFF)
if(NOT KVX_BUILD_JAVA)
  return()
endif()

find_program(KVX_JAVAC javac HINTS ENV JAVA_HOME PATH_SUFFIXES bin)
if(KVX_JAVAC)
  file(REAL_PATH "${KVX_JAVAC}" kvx_javac)
  get_filename_component(kvx_jdk "${kvx_javac}" DIRECTORY)
  get_filename_component(kvx_jdk "${kvx_jdk}" DIRECTORY)
  find_program(KVX_JAR jar HINTS "${kvx_jdk}/bin" NO_DEFAULT_PATH)
  find_program(KVX_JAVADOC javadoc HINTS "${kvx_jdk}/bin" NO_DEFAULT_PATH)
  find_program(KVX_JAVA_RUN java HINTS "${kvx_jdk}/bin" NO_DEFAULT_PATH)
  find_path(KVX_JNI_H jni.h HINTS "${kvx_jdk}/include" NO_DEFAULT_PATH)
  execute_process(COMMAND "${KVX_JAVAC}" -version OUTPUT_VARIABLE kvx_java_version ERROR_VARIABLE kvx_java_version
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_STRIP_TRAILING_WHITESPACE)
  string(REGEX MATCH "[0-9]+" kvx_java_feature "${kvx_java_version}")
  if(KVX_JAR AND KVX_JAVADOC AND KVX_JAVA_RUN AND KVX_JNI_H AND kvx_java_feature GREATER_EQUAL 11)
    set(KVX_JAVA ON)
    set(KVX_JNI_INCLUDES "${KVX_JNI_H}" "${KVX_JNI_H}/linux")
  endif()
endif()

if(NOT KVX_JAVA AND NOT KVX_JAVA_ABSENCE_TOLD)
  message(STATUS "No JDK of 11 or later: libtallowin.so comes without native methods, and there is no tallowin.jar")
  set(KVX_JAVA_ABSENCE_TOLD ON CACHE INTERNAL "The absence of a JDK has been told")
endif()
