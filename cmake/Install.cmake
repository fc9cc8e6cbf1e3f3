# SPDX-License-Identifier: MIT
# Install rules: the library with its SONAME links, the two public headers, the pkg-config
# file modbus-ascii-master.pc (also as modbus-ascii-master-qt<N>.pc), the CMake package
# ModbusAsciiMaster, the host tool, the simulated slave and the docs. Every file belongs to one
# component, and each component becomes one Debian package (cmake/Packaging.cmake): runtime,
# development and tools.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The Qt flavour the driver is built against; hosts must use the same one.
if(NOT DEFINED MODBUS_QT_MAJOR)
  set(MODBUS_QT_MAJOR 5)
endif()

# Debian package names: the flavour is part of the name, since a host built against one Qt
# cannot load a driver built against the other.
set(MODBUS_PACKAGE_FLAVOUR qt${MODBUS_QT_MAJOR})
set(MODBUS_RUNTIME_PACKAGE libmodbus-ascii-master-${MODBUS_PACKAGE_FLAVOUR}-${PROJECT_VERSION_MAJOR})
set(MODBUS_DEVELOPMENT_PACKAGE libmodbus-ascii-master-${MODBUS_PACKAGE_FLAVOUR}-dev)
set(MODBUS_TOOLS_PACKAGE modbus-ascii-master-tools-${MODBUS_PACKAGE_FLAVOUR})

set(MODBUS_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/modbus-ascii-master)
set(MODBUS_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ModbusAsciiMaster)
set(MODBUS_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The headers live in their own directory, so that hosts keep writing
# #include "modbus_ascii_master_api.h" with the directory on their include path.
set_target_properties(Modbus_ASCII_Master PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>"
  EXPORT_NAME ModbusAsciiMaster)
install(TARGETS Modbus_ASCII_Master EXPORT ModbusAsciiMasterTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${MODBUS_INSTALL_INCLUDEDIR})
install(FILES include/modbus_ascii_master.h include/modbus_ascii_master_api.h
  DESTINATION ${MODBUS_INSTALL_INCLUDEDIR} COMPONENT development)

install(EXPORT ModbusAsciiMasterTargets NAMESPACE ModbusAsciiMaster::
  DESTINATION ${MODBUS_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(cmake/ModbusAsciiMasterConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ModbusAsciiMasterConfig.cmake
  INSTALL_DESTINATION ${MODBUS_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ModbusAsciiMasterConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ModbusAsciiMasterConfig.cmake
              ${PROJECT_BINARY_DIR}/ModbusAsciiMasterConfigVersion.cmake
  DESTINATION ${MODBUS_INSTALL_CMAKEDIR} COMPONENT development)

# The .pc file finds the prefix from its own place, so that a tree installed with --prefix or
# DESTDIR works as well as the package.
file(RELATIVE_PATH MODBUS_PC_PREFIX_FROM_PCFILEDIR
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" MODBUS_PC_PREFIX_FROM_PCFILEDIR "${MODBUS_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(cmake/modbus-ascii-master.pc.in ${PROJECT_BINARY_DIR}/modbus-ascii-master.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/modbus-ascii-master.pc
  DESTINATION ${MODBUS_INSTALL_PKGCONFIGDIR} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/modbus-ascii-master.pc
  DESTINATION ${MODBUS_INSTALL_PKGCONFIGDIR}
  RENAME modbus-ascii-master-${MODBUS_PACKAGE_FLAVOUR}.pc COMPONENT development)

install(FILES README.md docs/API.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${MODBUS_DEVELOPMENT_PACKAGE}
  COMPONENT development)
install(FILES docs/SAFETY.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${MODBUS_RUNTIME_PACKAGE}
  COMPONENT runtime)

if(TARGET modbus-ascii-host)
  install(TARGETS modbus-ascii-host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(PROGRAMS tools/sim_slave.py DESTINATION ${CMAKE_INSTALL_BINDIR}
    RENAME modbus-ascii-sim-slave COMPONENT tools)
  install(FILES docs/HOST_TOOL.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${MODBUS_TOOLS_PACKAGE}
    COMPONENT tools)
  install(FILES examples/demo_slave.json examples/tags.csv examples/panel.toml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${MODBUS_TOOLS_PACKAGE}/examples COMPONENT tools)
  # The service, one instance per configuration (/etc/modbus-ascii-host/NAME.toml).
  install(FILES tools/systemd/modbus-ascii-host@.service DESTINATION lib/systemd/system
    COMPONENT tools)
endif()
