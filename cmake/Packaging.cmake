# SPDX-License-Identifier: MIT
# Debian packages through CPack, one per install component (cmake/Install.cmake):
#   runtime      the .so.1 and its link             libmodbus-ascii-master-qt<N>-1
#   development  headers, .pc, CMake files, .so     libmodbus-ascii-master-qt<N>-dev
#   tools        modbus-ascii-host, the simulator   modbus-ascii-master-tools-qt<N>
# Dependencies on shared libraries are computed from the binaries by dpkg-shlibdeps; in a
# cross build it reads them from the sysroot (DEBIAN/symbols and shlibs, see
# scripts/make-sysroot.sh). Build the packages with scripts/package.sh ARCH.
# The .invalid address says that the packages come from the sources, not from a distribution:
# whoever distributes them sets theirs.
set(MODBUS_DEB_MAINTAINER
  "Modbus ASCII master driver developers <maintainers@modbus-ascii-master.invalid>"
  CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME modbus-ascii-master)
set(CPACK_PACKAGE_VENDOR "Modbus ASCII master maintainers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${MODBUS_DEB_MAINTAINER}")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET modbus-ascii-host)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${MODBUS_DEB_ARCH})
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()

set(MODBUS_PACKAGE_EXACT_VERSION "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(MODBUS_QT_DEV_PACKAGE_5 qtbase5-dev)
set(MODBUS_QT_DEV_PACKAGE_6 qt6-base-dev)

# The flavours hold the same file names, so each package provides and conflicts with one
# flavour-free virtual package, which lets only one flavour be installed at a time, and replaces
# the other flavour's package of its kind by name (dpkg removes a conflicting package only for
# a package that replaces it by its own name), so that installing one flavour removes the other.
# Hosts depend on the flavoured name (the shlibs file names it), never on the virtual one.
set(MODBUS_RUNTIME_VIRTUAL_PACKAGE libmodbus-ascii-master${PROJECT_VERSION_MAJOR})
set(MODBUS_DEVELOPMENT_VIRTUAL_PACKAGE libmodbus-ascii-master-dev)
set(MODBUS_TOOLS_VIRTUAL_PACKAGE modbus-ascii-master-tools)
set(MODBUS_OTHER_FLAVOUR_5 qt6)
set(MODBUS_OTHER_FLAVOUR_6 qt5)
foreach(component RUNTIME DEVELOPMENT TOOLS)
  set(virtual ${MODBUS_${component}_VIRTUAL_PACKAGE})
  string(REPLACE ${MODBUS_PACKAGE_FLAVOUR} ${MODBUS_OTHER_FLAVOUR_${MODBUS_QT_MAJOR}}
    other_flavour_package ${MODBUS_${component}_PACKAGE})
  set(CPACK_DEBIAN_${component}_PACKAGE_PROVIDES "${virtual} (= ${MODBUS_PACKAGE_EXACT_VERSION})")
  set(CPACK_DEBIAN_${component}_PACKAGE_CONFLICTS ${virtual})
  set(CPACK_DEBIAN_${component}_PACKAGE_REPLACES ${other_flavour_package})
endforeach()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${MODBUS_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# A shlibs file for the packages with a shared library (the runtime package), as Debian
# library packages carry one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/drop-ldconfig-scripts.cmake)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "Modbus ASCII master driver for operator-panel runtimes (Qt ${MODBUS_QT_MAJOR})
libModbus_ASCII_Master.so.${PROJECT_VERSION_MAJOR}, the shared library that an HMI runtime
loads to poll Modbus ASCII slaves over its serial line.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${MODBUS_DEVELOPMENT_PACKAGE})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${MODBUS_RUNTIME_PACKAGE} (= ${MODBUS_PACKAGE_EXACT_VERSION}), ${MODBUS_QT_DEV_PACKAGE_${MODBUS_QT_MAJOR}}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "Modbus ASCII master driver, development files (Qt ${MODBUS_QT_MAJOR})
Headers, the pkg-config file modbus-ascii-master.pc, the CMake package
ModbusAsciiMaster and the reference for host developers.")

# The host tool opens the driver with dlopen, so the dependency on it is stated here.
set(MODBUS_PACKAGE_SCRIPTS_DIR ${PROJECT_BINARY_DIR}/debian/tools-scripts)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${MODBUS_TOOLS_PACKAGE})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "${MODBUS_RUNTIME_PACKAGE} (= ${MODBUS_PACKAGE_EXACT_VERSION}), adduser")
# The service's system user (modbus-ascii-host@.service): made on install, nothing started.
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/tools-postinst ${MODBUS_PACKAGE_SCRIPTS_DIR}/postinst
  COPYONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
  WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${MODBUS_PACKAGE_SCRIPTS_DIR}/postinst)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "python3, python3-pymodbus, python3-serial-asyncio")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "socat")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "Modbus ASCII master driver, command-line host and simulated slave (Qt ${MODBUS_QT_MAJOR})
modbus-ascii-host loads the driver as a runtime does and polls a slave over a
serial port; modbus-ascii-sim-slave is a simulated slave for trying it out.")

include(cmake/DebianDocs.cmake)
include(CPack)
