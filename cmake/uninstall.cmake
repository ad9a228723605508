# Removes what `cmake --install` listed, and the directories that this leaves empty. Where it was
# installed under a DESTDIR, it is removed with the same. What a user's applications have saved stays.
file(GLOB manifests ${CMAKE_CURRENT_BINARY_DIR}/install_manifest*.txt)  # one for each component
if(NOT manifests)
  message(FATAL_ERROR "nothing was installed from here: there is no install_manifest.txt")
endif()

set(directories "")
set(files "")
foreach(manifest ${manifests})
  file(STRINGS ${manifest} listed)
  list(APPEND files ${listed})
endforeach()
foreach(file ${files})
  set(file $ENV{DESTDIR}${file})
  if(EXISTS ${file} OR IS_SYMLINK ${file})
    message(STATUS "Removing ${file}")
    file(REMOVE ${file})
  endif()
  # The directories that are the project's alone.
  cmake_path(GET file PARENT_PATH directory)
  while(directory MATCHES "/((include|cmake|dist-packages)/orbiq|doc/liborbiq-doc)(/|$)")
    list(APPEND directories ${directory})
    cmake_path(GET directory PARENT_PATH directory)
  endwhile()
endforeach()
file(REMOVE ${manifests})

list(REMOVE_DUPLICATES directories)
list(SORT directories ORDER DESCENDING)  # the inner ones first
foreach(directory ${directories})
  file(GLOB remaining ${directory}/*)
  if(IS_DIRECTORY ${directory} AND NOT remaining)
    file(REMOVE_RECURSE ${directory})
  endif()
endforeach()
