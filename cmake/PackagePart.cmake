# Install-time part of Packaging.cmake: puts one Debian package's share of the project's install
# tree under the prefix CPack installs into. The install rules of lib/, tools/ and server/ (the
# default component) stay the one list of what is installed; they run into a scratch folder and
# each file goes to the package whose pattern matches it. A file no package claims stops the
# packaging, so nothing installed is left out silently.
# Set by the caller: TRI_PART (this package's name), TRI_PARTS (all of them), TRI_FILES_<part>
# (regular expressions on paths relative to the prefix), TRI_BUILD_DIR, TRI_SCRATCH.
file(REMOVE_RECURSE "${TRI_SCRATCH}")
execute_process(
  COMMAND "${CMAKE_COMMAND}" -E env --unset=DESTDIR
          "${CMAKE_COMMAND}" -DCMAKE_INSTALL_COMPONENT=Unspecified
          "-DCMAKE_INSTALL_PREFIX=${TRI_SCRATCH}" "-DCMAKE_INSTALL_DO_STRIP=${CMAKE_INSTALL_DO_STRIP}"
          -P "${TRI_BUILD_DIR}/cmake_install.cmake"
  OUTPUT_QUIET RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "installing the project into ${TRI_SCRATCH} failed")
endif()

file(GLOB_RECURSE installed LIST_DIRECTORIES false RELATIVE "${TRI_SCRATCH}" "${TRI_SCRATCH}/*")
foreach(path IN LISTS installed)
  set(owner "")
  foreach(part IN LISTS TRI_PARTS)
    foreach(pattern IN LISTS TRI_FILES_${part})
      if(path MATCHES "${pattern}")
        set(owner ${part})
      endif()
    endforeach()
  endforeach()
  if(owner STREQUAL "")
    message(FATAL_ERROR "no Debian package holds ${path}: add it to a pattern in Packaging.cmake")
  endif()
  if(owner STREQUAL TRI_PART)
    get_filename_component(folder "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/${path}" DIRECTORY)
    # Symbolic links stay links: the library's SONAME link and the development link.
    file(COPY "${TRI_SCRATCH}/${path}" DESTINATION "${folder}")
  endif()
endforeach()
