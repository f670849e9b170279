# The kit: version resources of the Windows binaries, and cmake --install: headers, the two libraries, orqcam, the CMake package, pkg-config files and,
# on Linux, the udev rule. Everything takes its version from project().
include(CMakePackageConfigHelpers)

set(ORQ_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/OrqSDK)

set(ORQ_KIT_LIBRARIES orqsdk_sim)
if(TARGET orqsdk)
  list(APPEND ORQ_KIT_LIBRARIES orqsdk)
endif()
foreach(library ${ORQ_KIT_LIBRARIES})
  set_target_properties(${library} PROPERTIES VERSION ${PROJECT_VERSION}
                                              SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${library} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endforeach()

# Windows: a VERSIONINFO resource in each binary, and a .def file beside each DLL from which
# .ci/run makes the import library for Microsoft's linker.
if(WIN32)
  enable_language(RC)
  set(ORQ_RC_VERSION
      "${PROJECT_VERSION_MAJOR},${PROJECT_VERSION_MINOR},${PROJECT_VERSION_PATCH},${ORQ_VERSION_TWEAK}")
  foreach(binary ${ORQ_KIT_LIBRARIES} orqcam)
    if(NOT TARGET ${binary})
      continue()
    endif()
    set(ORQ_RC_NAME ${binary})
    if(binary STREQUAL "orqcam")
      set(ORQ_RC_FILE orqcam.exe)
      set(ORQ_RC_TYPE VFT_APP)
      set(ORQ_RC_DESCRIPTION "OrqSDK command-line tool")
    else()
      set(ORQ_RC_FILE ${binary}.dll)
      set(ORQ_RC_TYPE VFT_DLL)
      set(ORQ_RC_DESCRIPTION "OrqSDK camera remote control")
      if(binary STREQUAL "orqsdk_sim")
        set(ORQ_RC_DESCRIPTION "OrqSDK on virtual cameras")
      endif()
      target_link_options(${binary} PRIVATE "LINKER:--output-def,$<TARGET_FILE_DIR:${binary}>/${binary}.def")
    endif()
    configure_file(cmake/orqsdk.rc.in ${PROJECT_BINARY_DIR}/rc/${binary}.rc @ONLY)
    target_sources(${binary} PRIVATE ${PROJECT_BINARY_DIR}/rc/${binary}.rc)
  endforeach()
endif()

install(TARGETS ${ORQ_KIT_LIBRARIES} EXPORT OrqSDKTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/orqsdk_version.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET orqcam)
  install(TARGETS orqcam RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(EXPORT OrqSDKTargets NAMESPACE OrqSDK:: DESTINATION ${ORQ_CMAKE_PACKAGE_DIR})
configure_package_config_file(cmake/OrqSDKConfig.cmake.in
  ${PROJECT_BINARY_DIR}/OrqSDKConfig.cmake INSTALL_DESTINATION ${ORQ_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/OrqSDKConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/OrqSDKConfig.cmake ${PROJECT_BINARY_DIR}/OrqSDKConfigVersion.cmake
        DESTINATION ${ORQ_CMAKE_PACKAGE_DIR})

# pkg-config files find the prefix from their own place, so that a kit installed under a staging
# prefix or moved elsewhere works where it lies. Shared libraries only: no private requirements.
set(ORQ_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(ORQ_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(ORQ_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(ORQ_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH ORQ_PC_UP /${ORQ_PKGCONFIG_DIR} /)
  string(REGEX REPLACE "/$" "" ORQ_PC_UP "${ORQ_PC_UP}")
  set(ORQ_PC_PREFIX "\${pcfiledir}/${ORQ_PC_UP}")
  set(ORQ_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(ORQ_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
foreach(library ${ORQ_KIT_LIBRARIES})
  set(ORQ_PC_NAME ${library})
  if(library STREQUAL "orqsdk_sim")
    set(ORQ_PC_DESCRIPTION "OrqSDK on virtual cameras, for tests and demonstrations")
  else()
    set(ORQ_PC_DESCRIPTION "Remote control of compact cameras over USB")
  endif()
  configure_file(cmake/orqsdk.pc.in ${PROJECT_BINARY_DIR}/${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${ORQ_PKGCONFIG_DIR})
endforeach()

# Linux: access for the logged-in user to USB devices with a still-image interface. udev reads
# /usr/lib/udev/rules.d and /etc/udev/rules.d only; other prefixes copy the rule there.
if(NOT WIN32)
  set(ORQ_UDEV_RULES_DIR "lib/udev/rules.d" CACHE STRING
      "Where cmake --install puts the udev rule (relative: under the install prefix)")
  install(FILES packaging/70-orqsdk.rules DESTINATION ${ORQ_UDEV_RULES_DIR})
endif()

# The docs and examples travel with the libraries: the header points to the guide. On Windows the
# zip's top folder has a README for Windows users in place of the source tree's.
set(ORQ_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/orqsdk)
install(DIRECTORY docs/ DESTINATION ${ORQ_DOC_DIR} FILES_MATCHING PATTERN "*.md")
install(FILES sim/README.md DESTINATION ${ORQ_DOC_DIR} RENAME virtual-camera.md)
install(FILES examples/README.md examples/CMakeLists.txt examples/example_support.h
        examples/shoot.c examples/live_view.c examples/settings.c
        DESTINATION ${ORQ_DOC_DIR}/examples)
install(DIRECTORY examples/python DESTINATION ${ORQ_DOC_DIR}/examples
        FILES_MATCHING PATTERN "*.py")
if(WIN32)
  install(FILES packaging/windows/README.md LICENSE CHANGELOG.md DESTINATION .)
else()
  install(FILES README.md LICENSE CHANGELOG.md DESTINATION ${ORQ_DOC_DIR})
endif()
