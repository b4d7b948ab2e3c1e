# The Qt that the build uses, and the names that follow from it. A Qt 5 build installs the
# plain names; a Qt 6 build installs every name with "Qt6" in it, so that both builds can be
# installed at once and an application finds the one of its own Qt (see docs/qt6.md):
#
#   what                      Qt 5                         Qt 6
#   libraries                 libKrPal.so.1                libKrPalQt6.so.1
#                             libKrPalDevices.so.1         libKrPalQt6Devices.so.1
#   companion stand-in        libCrosscutting.so.1         libCrosscuttingQt6.so.1
#   CMake packages, targets   KrPal: KrPal::KrPal,         KrPalQt6: KrPalQt6::KrPal,
#                             KrPal::Devices               KrPalQt6::Devices
#                             Crosscutting                 CrosscuttingQt6
#   pkg-config                KrPal, KrPalDevices          KrPalQt6, KrPalQt6Devices
#   headers                   include/pal/                 include/KrPalQt6/pal/
#                             include/crosscutting/        include/CrosscuttingQt6/crosscutting/
#   demo and tools            bin/                         lib/krpal-qt6/bin/
#   Debian packages           libkrpal1, libkrpal-dev,     libkrpalqt6-1, libkrpalqt6-dev,
#                             krpal-tools                  krpalqt6-tools
#
# Inside the build the targets keep their names (KrPal::KrPal, KrPal::Devices,
# Crosscutting::Crosscutting) and Qt is reached through its versionless targets (Qt::Core),
# so that the same CMake code serves both. The installed libraries are the exception: what
# they link publicly is exported, and there ${KRPAL_QT}::Core names the Qt they were built
# with, whatever Qt an application finds first (the install check refuses Qt::). Further Qt
# modules are found with
#   find_package(${KRPAL_QT} ${KRPAL_QT_MIN_VERSION} REQUIRED COMPONENTS ...)

set(KRPAL_QT_MAJOR_VERSION 5 CACHE STRING "Major version of Qt to build against: 5 or 6")
set_property(CACHE KRPAL_QT_MAJOR_VERSION PROPERTY STRINGS 5 6)

if(KRPAL_QT_MAJOR_VERSION STREQUAL "5")
    set(KRPAL_QT_MIN_VERSION 5.15)
    set(KRPAL_NAME_SUFFIX "")
    # Nothing that 5.15 deprecates: the Qt 6 build would not have it.
    set(KRPAL_QT_DISABLE_DEPRECATED_BEFORE 0x050F00)
elseif(KRPAL_QT_MAJOR_VERSION STREQUAL "6")
    # Debian 12's Qt 6, the oldest that the build is tested with.
    set(KRPAL_QT_MIN_VERSION 6.4)
    set(KRPAL_NAME_SUFFIX Qt6)
    set(KRPAL_QT_DISABLE_DEPRECATED_BEFORE 0x060400)
else()
    message(FATAL_ERROR "KRPAL_QT_MAJOR_VERSION must be 5 or 6 (got '${KRPAL_QT_MAJOR_VERSION}')")
endif()
set(KRPAL_QT Qt${KRPAL_QT_MAJOR_VERSION})

# KrPal, KrPalQt6: the library's file name, its CMake package and namespace, its pkg-config
# module and, under Qt 6, the folder that holds its headers.
set(KRPAL_NAME KrPal${KRPAL_NAME_SUFFIX})
set(KRPAL_CROSSCUTTING_NAME Crosscutting${KRPAL_NAME_SUFFIX})
string(TOLOWER "${KRPAL_NAME}" KRPAL_DEBIAN_NAME)
if(KRPAL_NAME_SUFFIX)
    set(KRPAL_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/${KRPAL_NAME}")
    set(KRPAL_CROSSCUTTING_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/${KRPAL_CROSSCUTTING_NAME}")
    # The programs keep their names, and what they print, in a folder of their own, as
    # Debian keeps Qt 6's own tools in /usr/lib/qt6/bin.
    set(KRPAL_INSTALL_BINDIR "${CMAKE_INSTALL_LIBDIR}/krpal-qt6/bin")
else()
    set(KRPAL_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
    set(KRPAL_CROSSCUTTING_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
    set(KRPAL_INSTALL_BINDIR "${CMAKE_INSTALL_BINDIR}")
endif()

find_package(${KRPAL_QT} ${KRPAL_QT_MIN_VERSION} REQUIRED COMPONENTS Core Positioning)
