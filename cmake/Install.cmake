include(CMakePackageConfigHelpers)

install(TARGETS qxmedia EXPORT QXMediaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The public headers are the umbrella header and what it includes, followed
# to the end; every other header under include/ is internal and stays in the
# source tree. The list is written out for the symbol check and the API docs.
function(qx_public_headers out)
  set(pending qxmedia/qxmedia.h)
  set(found "")
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST found OR NOT EXISTS ${PROJECT_SOURCE_DIR}/include/${header})
      continue()
    endif()
    list(APPEND found ${header})
    file(STRINGS ${PROJECT_SOURCE_DIR}/include/${header} includes REGEX "^#include \"qxmedia/")
    foreach(line IN LISTS includes)
      string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" included "${line}")
      list(APPEND pending ${included})
    endforeach()
  endwhile()
  list(SORT found)
  set(${out} ${found} PARENT_SCOPE)
endfunction()
qx_public_headers(QX_PUBLIC_HEADERS)
list(TRANSFORM QX_PUBLIC_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/include/ OUTPUT_VARIABLE public_paths)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${public_paths})
string(REPLACE ";" "\n" public_list "${QX_PUBLIC_HEADERS}")
file(WRITE ${PROJECT_BINARY_DIR}/public-headers.txt "${public_list}\n")
foreach(header IN LISTS QX_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES include/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
endforeach()
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
