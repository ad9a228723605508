# Builds for another architecture, ORBIQ_TRIPLET, against the files of its packages in ORBIQ_SYSROOT.
# Programs run through ORBIQ_EMULATOR or, where that is empty, as they are.
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR "${ORBIQ_TRIPLET}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORBIQ_TRIPLET ORBIQ_SYSROOT ORBIQ_EMULATOR)

set(CMAKE_C_COMPILER ${ORBIQ_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORBIQ_TRIPLET}-g++)
set(CMAKE_SYSROOT ${ORBIQ_SYSROOT})

# Debian's name of the directories of an architecture differs from the compiler's for i386.
string(REGEX REPLACE "^i686-" "i386-" directory "${ORBIQ_TRIPLET}")
set(CMAKE_LIBRARY_ARCHITECTURE ${directory})
set(libraries ${ORBIQ_SYSROOT}/usr/lib/${directory})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ORBIQ_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${libraries}/pkgconfig:${ORBIQ_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

if(ORBIQ_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ORBIQ_EMULATOR})
else()
  # The loader's usual place is the machine's own.
  file(GLOB loader ${ORBIQ_SYSROOT}/lib/ld-linux*.so.*)
  set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=${loader} -Wl,--disable-new-dtags -Wl,-rpath,${libraries}:${ORBIQ_SYSROOT}/lib/${directory}")
endif()
