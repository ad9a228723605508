# Debian packages, one per component: `cpack -G DEB`, or `./dev package`, which sets what Debian
# expects of a build (prefix, hardening) and has lintian look at the result.
set(CPACK_PACKAGE_NAME orbiq)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "orbiq maintainers <maintainers@users.noreply.orbiq.dev>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development tools python documentation)
if(TARGET orbiq_secretservice)
  list(APPEND CPACK_COMPONENTS_ALL secretservice secretservice_development)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 0orbiq1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/orbiq)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_ORBIQ_PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(CPACK_PRE_BUILD_SCRIPTS ${CPACK_ORBIQ_PACKAGING}/complete_trees.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CPACK_ORBIQ_PACKAGING}/remove_scripts.cmake)

set(same_version "= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

# orbiq_package(COMPONENT NAME SECTION DEPENDS SUMMARY DESCRIPTION...)
macro(orbiq_package component name section depends summary)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  string(JOIN "\n" CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}" ${ARGN})
endmacro()

# Whose loader knows packed relocations; dpkg-shlibdeps does not see that.
set(loader "libc6 (>= 2.36)")

orbiq_package(library liborbiq1 libs "${loader}"
  "audience measurement for native applications"
  "orbiq counts audience events: the application calls sendHit, which returns at"
  "once, and threads of the library's own queue each hit, save it, ask an"
  "authorization server what the account may send, and send it."
  "This package has the shared library.")
orbiq_package(secretservice liborbiq-secretservice1 libs "liborbiq1 (${same_version}), ${loader}"
  "audience measurement for native applications (keyring)"
  "orbiq counts audience events."
  "This package has the part that keeps the device identifier in the user's"
  "keyring, through the Secret Service.")
orbiq_package(tools orbiq-tools devel ""
  "audience measurement for native applications (tools)"
  "orbiq counts audience events."
  "This package has programs for developers, among them orbiq-collector, an"
  "authorization and hit server for the local machine, and orbiq-doctor, which"
  "finds out why hits do not arrive.")

orbiq_package(python python3-orbiq python "liborbiq1 (>= ${PROJECT_VERSION}), python3:any"
  "audience measurement for Python applications"
  "orbiq counts audience events."
  "This package has the Python module.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${CPACK_ORBIQ_PACKAGING}/python/postinst
  ${CPACK_ORBIQ_PACKAGING}/python/prerm)

orbiq_package(documentation liborbiq-doc doc ""
  "audience measurement for native applications (documentation)"
  "orbiq counts audience events."
  "This package has the documentation as a site for the browser, and examples in"
  "C++, C, Rust and Go.")
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)

set(development_depends "liborbiq1 (${same_version})"
  "libcurl4-openssl-dev | libcurl4-gnutls-dev" libmnl-dev liburiparser-dev)
list(JOIN development_depends ", " development_depends)
orbiq_package(development liborbiq-dev libdevel "${development_depends}"
  "audience measurement for native applications (development)"
  "orbiq counts audience events."
  "This package has the headers, the archives for static linking, and what CMake"
  "and pkg-config need to find them.")
set(keyring_depends "liborbiq-dev (${same_version})" "liborbiq-secretservice1 (${same_version})"
  libsecret-1-dev)
list(JOIN keyring_depends ", " keyring_depends)
orbiq_package(secretservice_development liborbiq-secretservice-dev libdevel "${keyring_depends}"
  "audience measurement for native applications (keyring, development)"
  "orbiq counts audience events."
  "This package has what applications need that keep the device identifier in"
  "the user's keyring.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_SECRETSERVICE_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS ca-certificates)
foreach(upper LIBRARY SECRETSERVICE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${CPACK_ORBIQ_PACKAGING}/triggers)
endforeach()

include(CPack)
