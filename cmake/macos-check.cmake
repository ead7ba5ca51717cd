# Compiles the program, its tests and its benchmarks for macOS from another system, against the
# SDK at QUILLET_MACOS_SYSROOT, without linking anything: scripts/check-macos uses it to prove on
# Linux that every source still builds for a Mac. Nothing it produces can run.
#
# QUILLET_MACOS_TARGET   the clang target, for example arm64-apple-macos13
# QUILLET_MACOS_SYSROOT  an SDK laid out as Xcode's (usr/include, System/Library/Frameworks)
# QUILLET_MACOS_DEPS     a folder that holds only links to the headers of the libraries the
#                        program uses, so that no header of the build machine's C library is seen
# QUILLET_MACOS_SHIMS    a folder of frameworks that the SDK lacks (declarations only)
# QUILLET_MACOS_CLANG    the clang++ to use (17 or later, for the SDK's libc++ and availability macros)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
    QUILLET_MACOS_TARGET QUILLET_MACOS_SYSROOT QUILLET_MACOS_DEPS QUILLET_MACOS_SHIMS QUILLET_MACOS_CLANG)
foreach(variable IN LISTS CMAKE_TRY_COMPILE_PLATFORM_VARIABLES)
  if(NOT ${variable})
    message(FATAL_ERROR "macos-check: ${variable} is not set (run scripts/check-macos)")
  endif()
endforeach()

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 22.0)
string(REGEX MATCH "^[^-]+" QUILLET_MACOS_ARCH "${QUILLET_MACOS_TARGET}")
string(REGEX MATCH "[0-9.]+$" QUILLET_MACOS_MINIMUM "${QUILLET_MACOS_TARGET}")
set(CMAKE_SYSTEM_PROCESSOR ${QUILLET_MACOS_ARCH})
set(CMAKE_OSX_ARCHITECTURES ${QUILLET_MACOS_ARCH} CACHE STRING "")
set(CMAKE_OSX_DEPLOYMENT_TARGET ${QUILLET_MACOS_MINIMUM} CACHE STRING "")
set(CMAKE_OSX_SYSROOT ${QUILLET_MACOS_SYSROOT} CACHE PATH "")

get_filename_component(QUILLET_MACOS_BIN "${QUILLET_MACOS_CLANG}" DIRECTORY)
string(REGEX REPLACE "\\+\\+" "" QUILLET_MACOS_CC "${QUILLET_MACOS_CLANG}")
set(CMAKE_C_COMPILER ${QUILLET_MACOS_CC})
set(CMAKE_CXX_COMPILER ${QUILLET_MACOS_CLANG})
set(CMAKE_C_COMPILER_TARGET ${QUILLET_MACOS_TARGET})
set(CMAKE_CXX_COMPILER_TARGET ${QUILLET_MACOS_TARGET})
find_program(CMAKE_AR NAMES llvm-ar HINTS "${QUILLET_MACOS_BIN}" REQUIRED)
find_program(CMAKE_RANLIB NAMES llvm-ranlib HINTS "${QUILLET_MACOS_BIN}" REQUIRED)

# Nothing is ever linked, and nothing of the build machine is searched for headers or libraries.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_FIND_ROOT_PATH ${QUILLET_MACOS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_C_FLAGS_INIT "-Werror")
# The SDK's libc++, then the libraries' headers, then the SDK's C headers, as on a Mac.
set(CMAKE_CXX_FLAGS_INIT "-Werror -nostdinc++ -isystem ${QUILLET_MACOS_SYSROOT}/usr/include/c++/v1 -F ${QUILLET_MACOS_SHIMS} -isystem ${QUILLET_MACOS_DEPS}")
set(QUILLET_COMPILE_ONLY ON CACHE BOOL "compile every source without linking" FORCE)
