# What an EU project outside this repository needs: the runtime, the hosting executable, the host
# platform library, the public headers, and a CMake package (find_package(OlmLiteRt)) whose target
# OlmLiteRt::OlmLiteRt carries the include directory.
include(CMakePackageConfigHelpers)

set(OLM_INSTALL_TARGETS OlmLiteRt OLMLiteExe olm-core-ramfiles olm-history)
if(OLM_HOST_PLATFORM)
  list(APPEND OLM_INSTALL_TARGETS RHYDDAL rhyddal-cdma-sync rhyddal-keygen)
  install(FILES ${PROJECT_SOURCE_DIR}/Platform/Include/Rhyddal.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/OlmLiteRt)
endif()

install(TARGETS ${OLM_INSTALL_TARGETS} EXPORT OlmLiteRtTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/OlmLiteRt)
install(FILES ${OLM_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/OlmLiteRt)
# EU libraries of ours that a master node loads: plugins, so not part of the CMake package.
install(TARGETS BrokerServer RadMaster SysLogCollector RamFileServer LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/olmlite)
# The operator tool, beside OLMLiteExe; it links the platform library only.
install(TARGETS olmctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The command that starts the controller node with those libraries.
install(PROGRAMS ${PROJECT_BINARY_DIR}/Tools/Controller/install/olm-controller DESTINATION ${CMAKE_INSTALL_BINDIR})

install(EXPORT OlmLiteRtTargets NAMESPACE OlmLiteRt:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OlmLiteRt)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/OlmLiteRtConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/OlmLiteRtConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OlmLiteRt)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OlmLiteRtConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/OlmLiteRtConfig.cmake ${PROJECT_BINARY_DIR}/OlmLiteRtConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OlmLiteRt)
