# What is installed, and where. A new public header is one line in the list below, a new tool one
# line `orbiq_install_tool(TARGET)` beside its target, a new manual page one file in docs/man.
#
# Components, one per package: library, secretservice, development and secretservice_development,
# tools, python, documentation.

# What an application may include, and what that includes in turn. Nothing else is installed.
set(ORBIQ_PUBLIC_HEADERS
  orbiq/orbiq.h
  orbiq/orbiq_c.h
  orbiq/orbiqVersion.h
  orbiq/private/orbiqAgent/Statistics.h
  orbiq/private/orbiqAgent/orbiqAgent.h
  orbiq/private/orbiqAgent/orbiqTaggerID/orbiqTaggerID.h
  orbiq/private/orbiqAuthManager/orbiqAccess/orbiqAccess.h
  orbiq/private/orbiqAuthManager/orbiqAuth/orbiqAuth.h
  orbiq/private/orbiqAuthManager/orbiqAuthManager.h
  orbiq/private/orbiqAuthManager/orbiqSession/orbiqSession.h
  orbiq/private/orbiqRequest/RequestEnumerations.h
  orbiq/private/orbiqRequest/orbiqClearCache.h
  orbiq/private/orbiqRequest/orbiqRequest.h
  orbiq/private/orbiqTimer/orbiqTimer.h
  orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h
  orbiq/public/orbiqTagger/orbiqTagger.h
  orbiq/services/orbiqKWDXUUIDHandler/orbiqKWDXUUIDHandler.h
  orbiq/services/orbiqLogger/orbiqLogger.h
  orbiq/services/orbiqReachability/orbiqReachability.h
  orbiq/services/platform/archive/Archivable.h
  orbiq/services/platform/time/Date.h
  orbiq/services/platform/base/Export.h
  orbiq/services/platform/host/HostApplication.h
  orbiq/services/platform/keychain/Keychain.h
  orbiq/services/platform/loop/MainLoop.h
  orbiq/services/platform/network/NetworkReachability.h
  orbiq/services/platform/loop/NotificationCenter.h
  orbiq/services/platform/base/Object.h
  orbiq/services/platform/text/Parameters.h
  orbiq/services/platform/loop/SerialQueue.h
  orbiq/services/platform/text/String.h
  orbiq/services/platform/log/SystemLog.h
  orbiq/services/platform/text/Url.h
  orbiq/services/platform/threads/WorkKind.h)
set(ORBIQ_SECRETSERVICE_HEADERS
  orbiq/secretservice/SecretServiceKeychain.h)

set(ORBIQ_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/orbiq)
# Where Debian's Python looks: below /usr in one place for all versions, elsewhere in that of its own.
set(python python3)
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  set(python python${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR})
endif()
set(ORBIQ_INSTALL_PYTHONDIR lib/${python}/dist-packages CACHE STRING "Place of the Python module")

set(ORBIQ_SITE "" CACHE PATH "Where ./dev docs made the site; it is installed beside the examples")

# Builds what is installed, and nothing else.
if(ORBIQ_INSTALL)
  add_custom_target(orbiq_installed)
endif()

function(orbiq_install_tool target)
  if(ORBIQ_INSTALL)
    add_dependencies(orbiq_installed ${target})
    install(TARGETS ${target} RUNTIME COMPONENT tools)
  endif()
endfunction()

# Each library in an export set of its own, so that who links one need not have what another needs.
function(orbiq_install_library target component development)
  add_dependencies(orbiq_installed ${target})
  install(TARGETS ${target} EXPORT ${target}
    LIBRARY COMPONENT ${component} NAMELINK_COMPONENT ${development}
    ARCHIVE COMPONENT ${development})
  install(EXPORT ${target} FILE ${target}-targets.cmake NAMESPACE orbiq::
    DESTINATION ${ORBIQ_INSTALL_CMAKEDIR} COMPONENT ${development})
endfunction()

# In the tree as in the source, where includes are written from the root.
function(orbiq_install_headers development)
  foreach(header ${ARGN})
    cmake_path(GET header PARENT_PATH directory)
    install(FILES ${PROJECT_SOURCE_DIR}/${header}
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${directory} COMPONENT ${development})
  endforeach()
endfunction()

# orbiq_install_pkgconfig(COMPONENT NAME DESCRIPTION REQUIRES PRIVATELY LIBRARY)
function(orbiq_install_pkgconfig development name description requires privately library)
  # Relative to the file itself, so that the tree can be moved.
  set(directory ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH prefix ${CMAKE_INSTALL_PREFIX}/${directory} ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" prefix "\${pcfiledir}/${prefix}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/orbiq.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${directory} COMPONENT ${development})
endfunction()

function(orbiq_install)
  include(CMakePackageConfigHelpers)
  set(core "libcurl, libmnl, liburiparser")
  orbiq_install_headers(development ${ORBIQ_PUBLIC_HEADERS})
  orbiq_install_library(orbiq library development)
  orbiq_install_library(orbiq_static development development)
  orbiq_install_pkgconfig(development orbiq "audience measurement for native applications" "" "${core}" -lorbiq)
  # The archive with everything else shared: `--static` would ask for all that libcurl may need. The
  # last two are what a C compiler does not link by itself.
  orbiq_install_pkgconfig(development orbiq-static "audience measurement, linked into the application"
    "${core}" "" "-l:liborbiq.a -lstdc++ -lm")
  if(TARGET orbiq_secretservice)
    set(keyring secretservice_development)
    orbiq_install_headers(${keyring} ${ORBIQ_SECRETSERVICE_HEADERS})
    orbiq_install_library(orbiq_secretservice secretservice ${keyring})
    orbiq_install_library(orbiq_secretservice_static ${keyring} ${keyring})
    orbiq_install_pkgconfig(${keyring} orbiq-secretservice "device identifier in the user's keyring"
      "orbiq = ${PROJECT_VERSION}" libsecret-1 -lorbiq_secretservice)
    orbiq_install_pkgconfig(${keyring} orbiq-secretservice-static
      "device identifier in the user's keyring, linked into the application"
      "orbiq-static = ${PROJECT_VERSION}, libsecret-1" "" -l:liborbiq_secretservice.a)
  endif()

  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/orbiq-config.cmake.in
    ${PROJECT_BINARY_DIR}/orbiq-config.cmake INSTALL_DESTINATION ${ORBIQ_INSTALL_CMAKEDIR}
    NO_SET_AND_CHECK_MACRO)
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/orbiq-config-version.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/orbiq-config.cmake
    ${PROJECT_BINARY_DIR}/orbiq-config-version.cmake
    DESTINATION ${ORBIQ_INSTALL_CMAKEDIR} COMPONENT development)

  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/orbiq DESTINATION ${ORBIQ_INSTALL_PYTHONDIR}
    COMPONENT python FILES_MATCHING PATTERN "*.py" PATTERN py.typed PATTERN __pycache__ EXCLUDE)

  set(documentation ${CMAKE_INSTALL_DATADIR}/doc/liborbiq-doc)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${documentation} COMPONENT documentation)
  if(ORBIQ_SITE)
    install(DIRECTORY ${ORBIQ_SITE}/ DESTINATION ${documentation}/html COMPONENT documentation)
  endif()

  if(ORBIQ_BUILD_TOOLS)
    file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.1)
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    set(completions ${PROJECT_SOURCE_DIR}/tools/completions)
    foreach(tool collector doctor requests)
      install(FILES ${completions}/orbiq.bash RENAME orbiq-${tool} COMPONENT tools
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    endforeach()
    install(FILES ${completions}/_orbiq COMPONENT tools
      DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
  endif()

  if(PROJECT_IS_TOP_LEVEL)
    add_custom_target(uninstall COMMAND ${CMAKE_COMMAND} -P ${PROJECT_SOURCE_DIR}/cmake/uninstall.cmake
      WORKING_DIRECTORY ${PROJECT_BINARY_DIR} VERBATIM)
  endif()
endfunction()
