# How every target of the project is compiled.
include(GNUInstallDirs)

if(NOT CMAKE_BUILD_TYPE AND PROJECT_IS_TOP_LEVEL)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

add_library(orbiq_compile INTERFACE)
target_compile_features(orbiq_compile INTERFACE cxx_std_20)
target_compile_options(orbiq_compile INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  -fvisibility=hidden $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>)
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # A source counts as a header there.
  target_compile_options(orbiq_compile INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-subobject-linkage>)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  target_compile_options(orbiq_compile INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(ORBIQ_SANITIZE)
  target_compile_options(orbiq_compile INTERFACE -fsanitize=${ORBIQ_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(orbiq_compile INTERFACE -fsanitize=${ORBIQ_SANITIZE})
endif()
option(ORBIQ_WERROR "Treat warnings as errors" OFF)
if(ORBIQ_WERROR)
  target_compile_options(orbiq_compile INTERFACE -Werror)
endif()

# By default where something is built to be delivered: a test build need not compile all twice.
include(CheckIPOSupported)
check_ipo_supported(RESULT isIpoSupported OUTPUT unused LANGUAGES CXX)
if(NOT PROJECT_IS_TOP_LEVEL OR ORBIQ_BUILD_TESTS OR ORBIQ_BUILD_FUZZ OR ORBIQ_SANITIZE)
  set(isIpoSupported OFF)
endif()
option(ORBIQ_LTO "Optimise the shared library as a whole, which makes it smaller" ${isIpoSupported})

# Relocations in a tenth of the space, which every loader since glibc 2.36 understands.
include(CheckLinkerFlag)
check_linker_flag(CXX LINKER:-z,pack-relative-relocs ORBIQ_CAN_PACK_RELOCATIONS)

# What the shared libraries have in common. They stay loaded for good: their threads, and the type
# that one of them registers with GLib, must not outlive their code.
function(orbiq_shared_library target)
  set(exports ${PROJECT_SOURCE_DIR}/orbiq/exports.map)
  set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR} LINK_DEPENDS ${exports})
  target_link_options(${target} PRIVATE LINKER:-z,nodelete LINKER:--version-script=${exports}
    LINKER:--gc-sections LINKER:-Bsymbolic-functions LINKER:-z,noseparate-code
    $<$<BOOL:${ORBIQ_CAN_PACK_RELOCATIONS}>:LINKER:-z,pack-relative-relocs>)
  # A sanitizer's run-time library comes with the program, not with this library.
  if(NOT ORBIQ_SANITIZE)
    target_link_options(${target} PRIVATE LINKER:-z,defs)
  endif()
endfunction()
