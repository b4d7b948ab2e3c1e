# Debian packages, made with CPack from a build configured for /usr (see docs/building.md):
#   libkrpal1     component runtime: libKrPal.so.1, libKrPalDevices.so.1 and libCrosscutting.so.1
#   libkrpal-dev  component development: headers, CMake package, pkg-config file, .so links,
#                 and the API reference when the docs target was built
#   krpal-tools   component tools, the default one: the demo and the tools
# A Qt 6 build makes libkrpalqt6-1, libkrpalqt6-dev and krpalqt6-tools of the Qt 6 names
# (cmake/KrPalQtVersion.cmake), which install beside these.
# Included after every install rule, since CPack takes the components known by then.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${KRPAL_DEBIAN_NAME})
set(CPACK_PACKAGE_VENDOR "KrPal developers")
if(NOT CPACK_PACKAGE_CONTACT)
    set(CPACK_PACKAGE_CONTACT "KrPal developers <krpal@localhost>")
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Refuses to package a build configured for another prefix.
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_BINARY_DIR}/KrPalCPackOptions.cmake")
configure_file("${CMAKE_CURRENT_LIST_DIR}/KrPalCPackOptions.cmake.in" "${CPACK_PROJECT_CONFIG_FILE}" @ONLY)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# The target's Debian architecture: arm64 from the aarch64 cross-build, not the host's.
if(CMAKE_LIBRARY_ARCHITECTURE)
    find_program(KRPAL_DPKG_ARCHITECTURE dpkg-architecture)
    if(KRPAL_DPKG_ARCHITECTURE)
        execute_process(COMMAND "${KRPAL_DPKG_ARCHITECTURE}" -t "${CMAKE_LIBRARY_ARCHITECTURE}" -qDEB_HOST_ARCH
                        OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    endif()
endif()
if(NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE AND CMAKE_CROSSCOMPILING)
    message(WARNING "No Debian architecture known for ${CMAKE_SYSTEM_PROCESSOR}: packages would be labelled "
                    "with the host's (install dpkg-dev for dpkg-architecture)")
endif()

# Debian's names of the Qt packages.
if(KRPAL_QT_MAJOR_VERSION EQUAL 6)
    set(krpal_qt_core_package "libqt6core6 (>= ${KRPAL_QT_MIN_VERSION})")
    set(krpal_qt_positioning_package "libqt6positioning6 (>= ${KRPAL_QT_MIN_VERSION})")
    set(krpal_qt_dev_packages "qt6-base-dev (>= ${KRPAL_QT_MIN_VERSION}), qt6-positioning-dev (>= ${KRPAL_QT_MIN_VERSION})")
else()
    set(krpal_qt_core_package "libqt5core5a (>= ${KRPAL_QT_MIN_VERSION})")
    set(krpal_qt_positioning_package "libqt5positioning5 (>= ${KRPAL_QT_MIN_VERSION})")
    set(krpal_qt_dev_packages "qtbase5-dev (>= ${KRPAL_QT_MIN_VERSION}), qtpositioning5-dev (>= ${KRPAL_QT_MIN_VERSION})")
endif()

# Library dependencies come from dpkg-shlibdeps (exact Qt, C and C++ library versions);
# without it, the Qt runtime packages are named by hand.
find_program(KRPAL_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(KRPAL_DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "")
    if(KRPAL_USE_SYSTEM_CROSSCUTTING)
        # The installed companion library may lie outside the linker's usual directories.
        get_target_property(krpal_crosscutting_location Crosscutting::Crosscutting LOCATION)
        get_filename_component(krpal_crosscutting_dir "${krpal_crosscutting_location}" DIRECTORY)
        set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${krpal_crosscutting_dir}")
    endif()
else()
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${krpal_qt_core_package}, ${krpal_qt_positioning_package}")
endif()
# A shlibs file, so that packages linking to the library get their dependency on it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The development and tools packages require the runtime package of exactly their version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENTS_ALL runtime development)
get_cmake_property(krpal_components COMPONENTS)
if(tools IN_LIST krpal_components)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(krpal_runtime_files "lib${KRPAL_NAME}.so.${PROJECT_VERSION_MAJOR}, its devices library
lib${KRPAL_NAME}Devices.so.${PROJECT_VERSION_MAJOR} (ready-made proxies for serial lines and character devices)")
if(NOT KRPAL_USE_SYSTEM_CROSSCUTTING)
    string(APPEND krpal_runtime_files " and the companion library lib${KRPAL_CROSSCUTTING_NAME}.so.1")
endif()
# Debian's rule for a library package: a hyphen between a name that ends in a digit and the
# SONAME's version.
if(KRPAL_DEBIAN_NAME MATCHES "[0-9]$")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "lib${KRPAL_DEBIAN_NAME}-${PROJECT_VERSION_MAJOR}")
else()
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "lib${KRPAL_DEBIAN_NAME}${PROJECT_VERSION_MAJOR}")
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}
The platform abstraction layer through which the instrument's applications reach
its hardware, built against ${KRPAL_QT}: ${krpal_runtime_files}.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME lib${KRPAL_DEBIAN_NAME}-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${krpal_qt_dev_packages}")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION} (development files)
Headers, the CMake package ${KRPAL_NAME} and the pkg-config files ${KRPAL_NAME}.pc and
${KRPAL_NAME}Devices.pc for building ${KRPAL_QT} applications against lib${KRPAL_NAME}.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${KRPAL_DEBIAN_NAME}-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION misc)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
# dpkg-shlibdeps cannot resolve libKrPal for the tools, since no installed package holds it
# yet: the tools name their one further library by hand, and the runtime package, which they
# require in exactly their version, brings the C and C++ libraries.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${krpal_qt_core_package}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "${PROJECT_DESCRIPTION} (demo and tools)
The simulated board demo and the command-line tools of lib${KRPAL_NAME}, in ${KRPAL_INSTALL_BINDIR}.")

include(CPack)
