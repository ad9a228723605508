# CPack gives each package with a shared library scripts that call ldconfig. The trigger does that.
list(FILTER CPACK_PACKAGE_FILES EXCLUDE REGEX "/python3-")  # whose scripts are its own
find_program(DPKG_DEB dpkg-deb REQUIRED)
foreach(package ${CPACK_PACKAGE_FILES})
  set(tree ${package}.tree)
  execute_process(COMMAND ${DPKG_DEB} --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
  execute_process(COMMAND ${DPKG_DEB} --root-owner-group --build ${tree} ${package}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
