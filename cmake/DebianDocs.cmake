# SPDX-License-Identifier: MIT
# The files every Debian package carries in /usr/share/doc/<package>/: the machine-readable
# copyright file (made from LICENSE), the Debian changelog (its entry for this version, dated
# as the version's section of CHANGELOG.md) and the upstream changelog (CHANGELOG.md); the
# tools' manual pages, and the lintian overrides of the tags this layout earns on purpose
# (cmake/lintian/, each with its reason). Included by cmake/Packaging.cmake.
find_program(MODBUS_GZIP gzip REQUIRED)
set(MODBUS_DEBIAN_DIR ${PROJECT_BINARY_DIR}/debian)
file(MAKE_DIRECTORY ${MODBUS_DEBIAN_DIR})
# The files are made when CMake configures; a change of any source configures again.
file(GLOB debian_sources ${PROJECT_SOURCE_DIR}/cmake/debian/* ${PROJECT_SOURCE_DIR}/cmake/lintian/*
  ${PROJECT_SOURCE_DIR}/docs/man/*)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${debian_sources}
  ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md)

# gzip -9n: maximal compression and no time stamp, as lintian wants and for reproducible files.
function(modbus_gzip source target)
  execute_process(COMMAND ${MODBUS_GZIP} -9nc ${source} OUTPUT_FILE ${target}
    COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# A template of cmake/debian/ made into a file: its leading comment lines dropped, @VARIABLES@
# replaced.
function(modbus_configure_template source target)
  file(READ ${PROJECT_SOURCE_DIR}/cmake/debian/${source} content)
  string(REGEX REPLACE "^(#[^\n]*\n)+" "" content "${content}")
  file(CONFIGURE OUTPUT ${target} CONTENT "${content}" @ONLY)
endfunction()

# The copyright holder and the licence text from LICENSE ("MIT License", a blank line, the
# copyright line, a blank line, the text), in the copyright file's syntax.
file(READ ${PROJECT_SOURCE_DIR}/LICENSE license)
if(NOT license MATCHES "^MIT License\n\nCopyright \\(c\\) ([^\n]+)\n\n")
  message(FATAL_ERROR "LICENSE does not start with 'MIT License' and its copyright line")
endif()
set(MODBUS_COPYRIGHT "${CMAKE_MATCH_1}")
string(LENGTH "${CMAKE_MATCH_0}" header_length)
string(SUBSTRING "${license}" ${header_length} -1 license)
string(STRIP "${license}" license)
string(REPLACE "\n\n" "\n.\n" license "${license}")
string(REPLACE "\n" "\n " MODBUS_LICENSE_TEXT "\n${license}")
modbus_configure_template(copyright.in ${MODBUS_DEBIAN_DIR}/copyright)

# The version's date in CHANGELOG.md ("## [1.0.0] - 2026-11-23") dates the Debian changelog,
# so that a new version cannot be packaged before its changes are written down.
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md version_heading
  REGEX "^## \\[${PROJECT_VERSION}\\] - [0-9-]+$")
if(NOT version_heading MATCHES "([0-9]+-[0-9]+-[0-9]+)$")
  message(FATAL_ERROR "CHANGELOG.md has no section '## [${PROJECT_VERSION}] - YYYY-MM-DD'")
endif()
execute_process(COMMAND date -u -R -d "${CMAKE_MATCH_1} 00:00:00 UTC"
  OUTPUT_VARIABLE MODBUS_RELEASE_DATE OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
modbus_gzip(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${MODBUS_DEBIAN_DIR}/changelog.gz)

foreach(component runtime development tools)
  string(TOUPPER ${component} COMPONENT)
  set(MODBUS_DEB_PACKAGE ${MODBUS_${COMPONENT}_PACKAGE})
  set(package_dir ${MODBUS_DEBIAN_DIR}/${MODBUS_DEB_PACKAGE})
  file(MAKE_DIRECTORY ${package_dir})
  modbus_configure_template(changelog.Debian.in ${package_dir}/changelog.Debian)
  modbus_gzip(${package_dir}/changelog.Debian ${package_dir}/changelog.Debian.gz)
  set(files ${MODBUS_DEBIAN_DIR}/copyright ${MODBUS_DEBIAN_DIR}/changelog.gz
            ${package_dir}/changelog.Debian.gz)
  file(READ ${PROJECT_SOURCE_DIR}/cmake/lintian/all overrides)
  if(EXISTS ${PROJECT_SOURCE_DIR}/cmake/lintian/${component})
    file(READ ${PROJECT_SOURCE_DIR}/cmake/lintian/${component} component_overrides)
    string(APPEND overrides "\n${component_overrides}")
  endif()
  file(CONFIGURE OUTPUT ${package_dir}/lintian-overrides CONTENT "${overrides}")
  if(NOT component STREQUAL "tools" OR TARGET modbus-ascii-host)
    install(FILES ${files} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${MODBUS_DEB_PACKAGE}
      COMPONENT ${component})
    install(FILES ${package_dir}/lintian-overrides DESTINATION
      ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${MODBUS_DEB_PACKAGE} COMPONENT ${component})
  endif()
endforeach()

if(TARGET modbus-ascii-host)
  foreach(page modbus-ascii-host.1 modbus-ascii-sim-slave.1)
    modbus_gzip(${PROJECT_SOURCE_DIR}/docs/man/${page} ${MODBUS_DEBIAN_DIR}/${page}.gz)
    install(FILES ${MODBUS_DEBIAN_DIR}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
      COMPONENT tools)
  endforeach()
endif()
