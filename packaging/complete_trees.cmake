# Run by CPack on the trees of the packages: what Debian wants in each, beyond what is installed.
find_program(GZIP gzip REQUIRED)
find_program(STRIP strip REQUIRED)

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(tree ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr)
  set(documents ${tree}/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  file(COPY ${CPACK_ORBIQ_PACKAGING}/copyright DESTINATION ${documents}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  configure_file(${CPACK_ORBIQ_PACKAGING}/changelog ${documents}/changelog.Debian COPYONLY)
  set(overrides ${CPACK_ORBIQ_PACKAGING}/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}.overrides)
  if(EXISTS ${overrides})
    configure_file(${overrides} ${tree}/share/lintian/overrides/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COPYONLY)
  endif()
  file(GLOB pages ${tree}/share/man/man1/*.1)
  execute_process(COMMAND ${GZIP} -9nf ${documents}/changelog.Debian ${pages}
    COMMAND_ERROR_IS_FATAL ANY)
  # CPack strips programs and shared libraries only.
  file(GLOB_RECURSE archives ${tree}/lib/*.a)
  foreach(archive ${archives})
    execute_process(COMMAND ${STRIP} --strip-debug --enable-deterministic-archives ${archive}
      COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endforeach()
