# Debian packages from this build, with CPack (cpack -G DEB in the build folder; configure with
# -DCMAKE_INSTALL_PREFIX=/usr and a Release build). Four packages:
#   lib<name><soversion>  the shared library with its SONAME link
#   lib<name>-dev         the public headers, the CMake package config, the pkg-config file and
#                         the development link
#   lxrepo                the command-line host
#   lxrepo-server         the reference service, run by systemd as the lxrepo user
# The install rules of lib/, tools/ and server/ say what is installed; which package holds a
# file is decided here by its path (cmake/PackagePart.cmake), so those rules stay the one list.
if(WIN32)
  return()
endif()

string(TOLOWER "${PROJECT_NAME}" tri_package_base)
get_target_property(tri_soversion TableRepositoryImportLib SOVERSION)
set(TRI_PACKAGE_MAINTAINER "TableRepositoryImportLib developers <maintainers@tablerepositoryimportlib.invalid>"
  CACHE STRING "The Maintainer field of the Debian packages")
set(TRI_SYSCONFDIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}")
set(TRI_BINDIR "${CMAKE_INSTALL_FULL_BINDIR}")
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(STATUS "Debian packages want -DCMAKE_INSTALL_PREFIX=/usr (now ${CMAKE_INSTALL_PREFIX})")
endif()

# Per package: its Debian name, section, the files it takes from the install tree (regular
# expressions on paths below the prefix) and its description (summary, then the long text).
set(tri_libdir "${CMAKE_INSTALL_LIBDIR}")
set(TRI_PARTS library dev)
set(tri_name_library lib${tri_package_base}${tri_soversion})
set(tri_section_library libs)
set(TRI_FILES_library "^${tri_libdir}/lib${PROJECT_NAME}\\.so\\.")
set(tri_summary_library "client library that publishes tables to a table repository service")
set(tri_name_dev lib${tri_package_base}-dev)
set(tri_section_dev libdevel)
set(TRI_FILES_dev "^${CMAKE_INSTALL_INCLUDEDIR}/" "^${tri_libdir}/lib${PROJECT_NAME}\\.so$"
  "^${tri_libdir}/cmake/" "^${tri_libdir}/pkgconfig/")
set(tri_summary_dev "client library for table repository services - development files")
if(TARGET lxrepo)
  list(APPEND TRI_PARTS lxrepo)
  set(tri_name_lxrepo lxrepo)
  set(tri_section_lxrepo utils)
  set(TRI_FILES_lxrepo "^${CMAKE_INSTALL_BINDIR}/lxrepo$")
  set(tri_summary_lxrepo "imports CSV files into a table repository service")
endif()
if(TARGET lxrepo-server)
  list(APPEND TRI_PARTS server)
  set(tri_name_server lxrepo-server)
  set(tri_section_server net)
  set(TRI_FILES_server "^${CMAKE_INSTALL_BINDIR}/lxrepo-server$")
  set(tri_summary_server "table repository service and authentication proxy on SQLite")
endif()

string(CONCAT tri_long_text
  "The library lets a desktop data-analysis application publish one of its\n"
  "in-memory tables to a remote table repository service over JSON/HTTP,\n"
  "authenticating with a bearer token, through an authentication proxy, or with\n"
  "NTLM.")

set(tri_packaging_dir "${PROJECT_BINARY_DIR}/packaging")
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${tri_packaging_dir}/changelog @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/packaging/lxrepo-server.service.in
  ${tri_packaging_dir}/lxrepo-server.service @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/packaging/conffiles.in ${tri_packaging_dir}/conffiles @ONLY)
# Debian wants the changelog compressed without a time stamp, so the packages build the same twice.
execute_process(COMMAND gzip -9nc ${tri_packaging_dir}/changelog
  OUTPUT_FILE ${tri_packaging_dir}/changelog.gz RESULT_VARIABLE tri_failed)
if(tri_failed)
  message(FATAL_ERROR "gzip of the Debian changelog failed")
endif()

# Everything below installs only when CPack asks for a package (EXCLUDE_FROM_ALL): a plain
# cmake --install stays as it was.
foreach(part IN LISTS TRI_PARTS)
  string(TOUPPER ${part} PART)
  install(CODE "
    set(TRI_PART ${part})
    set(TRI_PARTS \"${TRI_PARTS}\")
    set(TRI_FILES_library [[${TRI_FILES_library}]])
    set(TRI_FILES_dev [[${TRI_FILES_dev}]])
    set(TRI_FILES_lxrepo [[${TRI_FILES_lxrepo}]])
    set(TRI_FILES_server [[${TRI_FILES_server}]])
    set(TRI_BUILD_DIR \"${PROJECT_BINARY_DIR}\")
    set(TRI_SCRATCH \"${tri_packaging_dir}/tree-${part}\")
    include(\"${CMAKE_CURRENT_LIST_DIR}/PackagePart.cmake\")"
    COMPONENT ${part} EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${tri_packaging_dir}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${tri_name_${part}}
    COMPONENT ${part} EXCLUDE_FROM_ALL)
  set(CPACK_DEBIAN_${PART}_PACKAGE_NAME ${tri_name_${part}})
  set(CPACK_DEBIAN_${PART}_PACKAGE_SECTION ${tri_section_${part}})
  set(CPACK_COMPONENT_${PART}_DESCRIPTION "${tri_summary_${part}}\n${tri_long_text}")
endforeach()

# The library's shlibs file lets other packages' dpkg-shlibdeps find it; the ldconfig trigger
# does what CPack's generated maintainer scripts also do by calling ldconfig.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${tri_packaging_dir}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${tri_packaging_dir}/triggers)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS library)
# The pkg-config file names OpenSSL and GSSAPI as private requirements, which pkg-config
# resolves even for a shared link.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libssl-dev, libkrb5-dev")
set(CPACK_COMPONENT_LXREPO_DEPENDS library)
if(TARGET lxrepo-server)
  install(FILES ${tri_packaging_dir}/lxrepo-server.service DESTINATION /lib/systemd/system
    COMPONENT server EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/lxrepo-server.default
    DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default RENAME lxrepo-server
    COMPONENT server EXCLUDE_FROM_ALL)
  foreach(script postinst prerm postrm)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/lxrepo-server.${script}
      ${tri_packaging_dir}/${script} COPYONLY)
  endforeach()
  set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA ${tri_packaging_dir}/postinst
    ${tri_packaging_dir}/prerm ${tri_packaging_dir}/postrm ${tri_packaging_dir}/conffiles)
  set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS adduser)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${tri_package_base})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${TRI_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_COMPONENTS_ALL ${TRI_PARTS})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Dependencies come from the shared libraries the binaries link (dpkg-shlibdeps); the library of
# this build is found in the build tree, and the packages of it depend on it by component.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/lib")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
include(CPack)
