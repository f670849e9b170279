# Third-party libraries, all from Debian's packages.

# pugixml: the -dev package on Linux; for the Windows cross-build, Debian's source package
# unpacked by .ci/fetch-pugixml-source into ORQ_PUGIXML_SOURCE_DIR.
set(ORQ_PUGIXML_SOURCE_DIR "" CACHE PATH "Unpacked pugixml source package (cross builds)")
if(ORQ_PUGIXML_SOURCE_DIR)
  add_library(orq_pugixml STATIC ${ORQ_PUGIXML_SOURCE_DIR}/src/pugixml.cpp)
  target_include_directories(orq_pugixml SYSTEM PUBLIC ${ORQ_PUGIXML_SOURCE_DIR}/src)
  target_compile_options(orq_pugixml PRIVATE -w)
  add_library(pugixml::pugixml ALIAS orq_pugixml)
else()
  find_package(pugixml REQUIRED)
  if(NOT TARGET pugixml::pugixml AND TARGET pugixml)
    add_library(pugixml::pugixml ALIAS pugixml)
  endif()
endif()

# libjpeg-turbo (TurboJPEG), the virtual camera's pictures: the -dev package on Linux
# (sim/CMakeLists.txt); for the Windows cross-build, Debian's source package unpacked by
# .ci/fetch-libjpeg-turbo-source into ORQ_TURBOJPEG_SOURCE_DIR, built static without SIMD.
set(ORQ_TURBOJPEG_SOURCE_DIR "" CACHE PATH "Unpacked libjpeg-turbo source package (cross builds)")
if(ORQ_TURBOJPEG_SOURCE_DIR)
  include(ExternalProject)
  set(orq_turbojpeg_build ${CMAKE_BINARY_DIR}/libjpeg-turbo)
  get_filename_component(orq_toolchain "${CMAKE_TOOLCHAIN_FILE}" ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
  ExternalProject_Add(orq_turbojpeg_build
    SOURCE_DIR ${ORQ_TURBOJPEG_SOURCE_DIR}
    BINARY_DIR ${orq_turbojpeg_build}
    CMAKE_ARGS -DCMAKE_TOOLCHAIN_FILE=${orq_toolchain} -DCMAKE_BUILD_TYPE=Release
               -DENABLE_SHARED=OFF -DENABLE_STATIC=ON -DWITH_SIMD=OFF -DWITH_JAVA=OFF
               -DWITH_TURBOJPEG=ON -DCMAKE_INSTALL_PREFIX=${orq_turbojpeg_build}/unused
    BUILD_COMMAND ${CMAKE_COMMAND} --build <BINARY_DIR> --target turbojpeg-static
    INSTALL_COMMAND ""
    BUILD_BYPRODUCTS ${orq_turbojpeg_build}/libturbojpeg.a)
  add_library(orq_turbojpeg STATIC IMPORTED GLOBAL)
  set_target_properties(orq_turbojpeg PROPERTIES
    IMPORTED_LOCATION ${orq_turbojpeg_build}/libturbojpeg.a
    INTERFACE_INCLUDE_DIRECTORIES ${ORQ_TURBOJPEG_SOURCE_DIR})
  add_dependencies(orq_turbojpeg orq_turbojpeg_build)
endif()

# GoogleTest: the system package on Linux, built from /usr/src/googletest when cross-building.
if(NOT BUILD_TESTING)
elseif(CMAKE_CROSSCOMPILING)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  # googletest 1.12 defines the GTest:: names itself; older trees did not.
  foreach(lib gtest gtest_main gmock gmock_main)
    if(NOT TARGET GTest::${lib})
      add_library(GTest::${lib} ALIAS ${lib})
    endif()
    # Third-party code: our -Werror must not turn its warnings into our build failures.
    target_compile_options(${lib} PRIVATE -w)
  endforeach()
else()
  find_package(GTest REQUIRED)
endif()

if(NOT WIN32)
  find_package(PkgConfig REQUIRED)
  find_package(Threads REQUIRED)
endif()

# System libraries of the platform layer and the USB backend; every library target links this.
add_library(orq_platform_libs INTERFACE)
if(WIN32)
  target_link_libraries(orq_platform_libs INTERFACE setupapi winusb ole32 shell32 user32)
else()
  target_link_libraries(orq_platform_libs INTERFACE Threads::Threads)
endif()

# libexif, the Exif of collected and virtual pictures (src/exif): the -dev package on Linux; for
# the Windows cross-build, Debian's source package unpacked by .ci/fetch-libexif-source into
# ORQ_LIBEXIF_SOURCE_DIR, compiled here without translations. Without either, pictures carry no
# Exif of ours.
set(ORQ_LIBEXIF_SOURCE_DIR "" CACHE PATH "Unpacked libexif source package (cross builds)")
if(ORQ_LIBEXIF_SOURCE_DIR)
  file(GLOB orq_libexif_sources ${ORQ_LIBEXIF_SOURCE_DIR}/libexif/*.c
                                ${ORQ_LIBEXIF_SOURCE_DIR}/libexif/*/*.c)
  # What its configure script would have made: the two headers its sources include.
  set(orq_libexif_generated ${CMAKE_BINARY_DIR}/libexif-generated)
  file(WRITE ${orq_libexif_generated}/config.h
       "#define GETTEXT_PACKAGE \"libexif-12\"\n#define LOCALEDIR \"\"\n")
  file(WRITE ${orq_libexif_generated}/libexif/_stdint.h "#include <stdint.h>\n")
  add_library(orq_libexif STATIC ${orq_libexif_sources})
  target_include_directories(orq_libexif SYSTEM PUBLIC ${orq_libexif_generated}
                                                       ${ORQ_LIBEXIF_SOURCE_DIR})
  target_compile_options(orq_libexif PRIVATE -w)
  add_library(orq::libexif ALIAS orq_libexif)
elseif(NOT WIN32)
  pkg_check_modules(ORQ_LIBEXIF REQUIRED IMPORTED_TARGET GLOBAL libexif)
  add_library(orq::libexif ALIAS PkgConfig::ORQ_LIBEXIF)
endif()
