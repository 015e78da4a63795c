# SPDX-License-Identifier: MIT
# What `cmake --install` puts down: both libraries, the commands, the
# headers a host needs under include/qkcam/, a CMake package and a
# pkg-config file (both relocatable), the udev rule and the manual pages.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QK_PUBLIC_HEADERS
  DevicePTP/DevicePTP.h DevicePTP/Ema.h DevicePTP/PreviewData.h DevicePTP/PtpContainer.h
  DevicePTP/QKFileInfo.h DevicePTP/QKPropDesc.h DevicePTP/QKResult.h DevicePTP/Version.h
  log/Log.h
  models/CameraConfig.h models/CameraDB.h models/PropertyDB.h
  proc/ContProc.h
  rig/Rig.h
  usb/DataLen.h usb/UsbLib.h usb/UsbLib_libusb.h)
foreach(header IN LISTS QK_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qkcam/${folder} COMPONENT dev)
endforeach()

install(TARGETS qkcam qkcam_static EXPORT qkcamTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
set(qkcamCMakeDir ${CMAKE_INSTALL_LIBDIR}/cmake/qkcam)
install(EXPORT qkcamTargets NAMESPACE qkcam:: DESTINATION ${qkcamCMakeDir} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qkcamConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qkcamConfig.cmake INSTALL_DESTINATION ${qkcamCMakeDir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qkcamConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qkcamConfig.cmake ${PROJECT_BINARY_DIR}/qkcamConfigVersion.cmake
        DESTINATION ${qkcamCMakeDir} COMPONENT dev)

# The .pc file finds its prefix from where it lies, so a moved tree still works.
file(RELATIVE_PATH qkcamPcToPrefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/qkcam.pc.in ${PROJECT_BINARY_DIR}/qkcam.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qkcam.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(TARGET qkcam-list)
  install(TARGETS qkcam-list RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
if(TARGET qkcam_cli)
  install(TARGETS qkcam_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
if(TARGET qkcam-agent)
  install(TARGETS qkcam-agent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  set(QK_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Where the agent's systemd unit goes, below the prefix")
  configure_file(${PROJECT_SOURCE_DIR}/scripts/systemd/qkcam-agent.service.in
                 ${PROJECT_BINARY_DIR}/qkcam-agent.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/qkcam-agent.service DESTINATION ${QK_SYSTEMD_UNIT_DIR} COMPONENT tools)
endif()
if(TARGET qkcam-virtual)
  install(TARGETS qkcam-virtual RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT virtual)
endif()

# udev's rules directory is below the prefix's lib, never lib/<triplet>.
set(QK_UDEV_RULES_DIR lib/udev/rules.d CACHE STRING "Where the udev rule goes, below the prefix")
install(FILES ${PROJECT_SOURCE_DIR}/scripts/udev/60-qkcam.rules DESTINATION ${QK_UDEV_RULES_DIR}
        COMPONENT tools)
# Lets software centres offer the package when such a camera is plugged in.
install(FILES ${PROJECT_SOURCE_DIR}/scripts/udev/org.qkcam.tools.metainfo.xml
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/metainfo COMPONENT tools)
file(GLOB qkcamManPages ${PROJECT_SOURCE_DIR}/man/*.1)
install(FILES ${qkcamManPages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
