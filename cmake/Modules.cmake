# qx_module(NAME DIRS dir... DEPS target...)
# Builds qx_NAME from every .cpp below the given directories. A module whose
# directories hold no source yet is skipped, so the tree builds at every step.
set(QX_MODULES "" CACHE INTERNAL "")
function(qx_module name)
  cmake_parse_arguments(M "" "" "DIRS;DEPS" ${ARGN})
  set(sources "")
  foreach(dir IN LISTS M_DIRS)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${dir}/*.cpp")
    list(APPEND sources ${found})
  endforeach()
  if(NOT sources)
    return()
  endif()
  add_library(qx_${name} STATIC ${sources})
  # Only what a public header marks QX_EXPORT leaves the shared library; the
  # static modules that tests link are not affected.
  set_target_properties(qx_${name} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(qx_${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>)
  foreach(dep IN LISTS M_DEPS)
    if(TARGET ${dep} OR NOT dep MATCHES "^qx_")
      target_link_libraries(qx_${name} PUBLIC ${dep})
    endif()
  endforeach()
  set(QX_MODULES ${QX_MODULES} qx_${name} CACHE INTERNAL "")
endfunction()

# The shared library libqxmedia holds every module.
function(qx_shared_library)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.h.in
                 ${PROJECT_BINARY_DIR}/include/qxmedia/version.h @ONLY)
  add_library(qxmedia SHARED ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
  add_library(QXMedia::qxmedia ALIAS qxmedia)
  set_target_properties(qxmedia PROPERTIES VERSION ${PROJECT_VERSION}
                        SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
                        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  # Symbols of static libraries linked in, and standard-library
  # instantiations, stay inside.
  target_link_options(qxmedia PRIVATE -Wl,--exclude-libs,ALL
                      -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/qxmedia.map)
  set_target_properties(qxmedia PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/qxmedia.map)
  foreach(mod IN LISTS QX_MODULES)
    target_sources(qxmedia PRIVATE $<TARGET_OBJECTS:${mod}>)
    get_target_property(deps ${mod} LINK_LIBRARIES)
    foreach(dep IN LISTS deps)
      if(NOT dep MATCHES "^qx_")
        target_link_libraries(qxmedia PRIVATE ${dep})
      endif()
    endforeach()
  endforeach()
  target_include_directories(qxmedia PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_definitions(qx_core PRIVATE
    QX_RESOURCE_BUILD_DIR="${PROJECT_SOURCE_DIR}/resources"
    QX_RESOURCE_INSTALL_DIR="${CMAKE_INSTALL_FULL_DATADIR}/qxmedia")
endfunction()

# qx_test(NAME DIR dir DEPS target...): one GoogleTest binary per test folder.
function(qx_test name)
  cmake_parse_arguments(T "" "DIR" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${T_DIR}/*.cpp")
  if(NOT sources)
    return()
  endif()
  foreach(dep IN LISTS T_DEPS)
    if(dep MATCHES "^qx_" AND NOT TARGET ${dep})
      return()
    endif()
  endforeach()
  add_executable(test_${name} ${sources} ${PROJECT_SOURCE_DIR}/tests/support/TestEnvironment.cpp)
  target_link_libraries(test_${name} PRIVATE ${T_DEPS} qx_testsupport GTest::gtest_main GTest::gmock)
  gtest_discover_tests(test_${name} DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS ${name} ENVIRONMENT "QX_TEST_TMP=${CMAKE_BINARY_DIR}/test-media")
endfunction()
