include(CMakePackageConfigHelpers)

install(TARGETS qxmedia EXPORT QXMediaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/qxmedia DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/include/qxmedia/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qxmedia)
if(EXISTS ${PROJECT_SOURCE_DIR}/resources)
  install(DIRECTORY resources/ DESTINATION ${CMAKE_INSTALL_DATADIR}/qxmedia)
endif()
foreach(tool qxconvert qxmp4)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

install(EXPORT QXMediaTargets NAMESPACE QXMedia::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QXMedia)
configure_package_config_file(cmake/QXMediaConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QXMediaConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QXMedia)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QXMediaConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QXMediaConfig.cmake
  ${PROJECT_BINARY_DIR}/QXMediaConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QXMedia)

configure_file(cmake/qxmedia.pc.in ${PROJECT_BINARY_DIR}/qxmedia.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxmedia.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
