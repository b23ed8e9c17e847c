# Includes the NDK's toolchain file.
set(ndk_toolchain "$ENV{ANDROID_NDK_HOME}/build/cmake/android.toolchain.cmake")
if(NOT EXISTS "${ndk_toolchain}")
  message(FATAL_ERROR "Set ANDROID_NDK_HOME to the folder of an Android NDK, which contains "
                      "build/cmake/android.toolchain.cmake.")
endif()
include("${ndk_toolchain}")
