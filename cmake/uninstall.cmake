# SPDX-License-Identifier: Apache-2.0
#
# cmake -D BUILD=FOLDER -P uninstall.cmake: removes what the last `cmake --install` of this build folder
# has installed, and the folders of ours that are empty then. The lists of single components are left
# alone: cpack writes them too, with the places of what it has only packed.
set(list ${BUILD}/install_manifest.txt)
if(NOT EXISTS ${list})
  message(FATAL_ERROR "Nothing has been installed from ${BUILD}.")
endif()
file(STRINGS ${list} files)
set(folders)
foreach(file IN LISTS files)
  if(EXISTS ${file} OR IS_SYMLINK ${file})
    message(STATUS "Removing ${file}")
    file(REMOVE ${file})
  endif()
  get_filename_component(folder ${file} DIRECTORY)
  list(APPEND folders ${folder})
endforeach()
file(REMOVE ${list})

# A folder of statsubs' own goes when it is empty, the folders that everybody shares stay.
list(REMOVE_DUPLICATES folders)
list(SORT folders ORDER DESCENDING)
foreach(folder IN LISTS folders)
  while(folder MATCHES "/(statsubs|varda)(/|$)")
    file(GLOB left ${folder}/* ${folder}/.*)
    list(FILTER left EXCLUDE REGEX "/\\.\\.?$")
    if(left OR NOT IS_DIRECTORY ${folder})
      break()
    endif()
    file(REMOVE_RECURSE ${folder})
    get_filename_component(folder ${folder} DIRECTORY)
  endwhile()
endforeach()
