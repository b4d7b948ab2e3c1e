# Makes the Debian packages as a board integrator would, from a build configured for /usr,
# checks their names, fields and contents, installs them with dpkg into a scratch root and
# builds the consumer project against that root: with find_package and with pkg-config.
# QT_MAJOR (5 or 6) is the Qt of the packages; OTHER_QT_MAJOR, when given, makes the packages
# of the other Qt as well and checks that both sets install side by side.
cmake_minimum_required(VERSION 3.16)

include("${CMAKE_CURRENT_LIST_DIR}/../cmake/checkhelpers.cmake")

function(expect_match text regex what)
    if(NOT text MATCHES "${regex}")
        message(FATAL_ERROR "${what}: expected to match '${regex}', got:\n${text}")
    endif()
endfunction()

# The paths a package holds, symbolic links included, directories left out.
function(package_files deb out)
    run(dpkg-deb -c "${deb}")
    string(REGEX MATCHALL "\\./[^\n]*[^/\n]\n" files "${RUN_OUTPUT}")
    string(REGEX REPLACE " -> [^\n]*" "" files "${files}")
    string(REPLACE "\n" "" files "${files}")
    list(SORT files)
    set(${out} "${files}" PARENT_SCOPE)
endfunction()

set(root "${WORK_DIR}/root")
file(REMOVE_RECURSE "${root}" "${WORK_DIR}/cmake-build-qt5" "${WORK_DIR}/cmake-build-qt6")
run(dpkg --print-architecture)
string(STRIP "${RUN_OUTPUT}" arch)
set(version "${VERSION}-1")
set(libdir "lib")
if(LIBRARY_ARCHITECTURE)
    set(libdir "lib/${LIBRARY_ARCHITECTURE}")
endif()

# Builds the packages of Qt <major> into <packages>, checks them, and leaves their paths in
# <major>_debs. The package build stays between runs, so only changed sources are compiled again.
function(make_and_check_packages major build packages)
    krpal_installed_names(${major} "${libdir}")
    file(REMOVE_RECURSE "${packages}")
    run("${CMAKE_COMMAND}" -S "${SOURCE_DIR}" -B "${build}" -G "${GENERATOR}" "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}"
        "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_COMPILER_LAUNCHER=${CXX_COMPILER_LAUNCHER}"
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DKRPAL_BUILD_TESTS=OFF -DKRPAL_QT_MAJOR_VERSION=${major})
    run("${CMAKE_COMMAND}" --build "${build}" --parallel 2)
    run(cpack --config "${build}/CPackConfig.cmake" -B "${packages}")

    set(runtime_deb "${packages}/${DEB_RUNTIME}_${version}_${arch}.deb")
    set(dev_deb "${packages}/${DEB_DEV}_${version}_${arch}.deb")
    set(tools_deb "${packages}/${DEB_TOOLS}_${version}_${arch}.deb")
    file(GLOB made "${packages}/*.deb")
    list(SORT made)
    set(expected_debs "${dev_deb}" "${runtime_deb}" "${tools_deb}")
    list(SORT expected_debs)
    if(NOT made STREQUAL expected_debs)
        message(FATAL_ERROR "made\n  ${made}\ninstead of\n  ${expected_debs}")
    endif()
    if(major STREQUAL "6")
        set(qt_core libqt6core6)
        set(qt_positioning libqt6positioning6)
        set(qt_dev "qt6-base-dev \\(>= 6\\.4\\), qt6-positioning-dev \\(>= 6\\.4\\)")
    else()
        set(qt_core libqt5core5a)
        set(qt_positioning libqt5positioning5)
        set(qt_dev "qtbase5-dev \\(>= 5\\.15\\), qtpositioning5-dev \\(>= 5\\.15\\)")
    endif()

    # The runtime package: the three libraries, the Qt runtime, and a shlibs file for dependants.
    run(dpkg-deb -f "${runtime_deb}" Depends)
    expect_match("${RUN_OUTPUT}" "${qt_core} \\(>= ${major}\\." "${DEB_RUNTIME} Depends")
    expect_match("${RUN_OUTPUT}" "${qt_positioning} \\(>= ${major}\\." "${DEB_RUNTIME} Depends")
    run(dpkg-deb -I "${runtime_deb}" shlibs)
    expect_match("${RUN_OUTPUT}" "^lib${CROSSCUTTING} 1 ${DEB_RUNTIME} \\(>= ${version}\\)\nlib${KRPAL} 1 ${DEB_RUNTIME} \\(>= ${version}\\)\nlib${KRPAL}Devices 1 ${DEB_RUNTIME} \\(>= ${version}\\)\n?$"
                 "${DEB_RUNTIME} shlibs")
    package_files("${runtime_deb}" runtime_files)
    set(expected_runtime_files "./usr/${libdir}/lib${CROSSCUTTING}.so.1" "./usr/${libdir}/lib${CROSSCUTTING}.so.1.0.0"
                               "./usr/${libdir}/lib${KRPAL}.so.1" "./usr/${libdir}/lib${KRPAL}.so.${VERSION}"
                               "./usr/${libdir}/lib${KRPAL}Devices.so.1" "./usr/${libdir}/lib${KRPAL}Devices.so.${VERSION}")
    if(NOT runtime_files STREQUAL expected_runtime_files)
        message(FATAL_ERROR "${DEB_RUNTIME} holds\n  ${runtime_files}\ninstead of\n  ${expected_runtime_files}")
    endif()

    # The development package: this exact runtime, the Qt development packages, and only headers,
    # the .so links and the package files.
    run(dpkg-deb -f "${dev_deb}" Depends)
    expect_match("${RUN_OUTPUT}" "^${DEB_RUNTIME} \\(= ${version}\\), ${qt_dev}\n$" "${DEB_DEV} Depends")
    package_files("${dev_deb}" dev_files)
    foreach(path IN LISTS dev_files)
        if(NOT path MATCHES "^\\./usr/(${INCLUDE_ROOT}/pal|${INCLUDE_ROOT}/pal/devices|${CROSSCUTTING_INCLUDE_ROOT}/crosscutting)/[a-z_]+\\.h$"
           AND NOT path MATCHES "^\\./usr/${libdir}/(lib(${KRPAL}|${KRPAL}Devices|${CROSSCUTTING})\\.so|cmake/(${KRPAL}|${CROSSCUTTING})/[A-Za-z0-9-]+\\.cmake|pkgconfig/${KRPAL}(Devices)?\\.pc)$")
            message(FATAL_ERROR "${DEB_DEV} holds an unexpected file: ${path}")
        endif()
    endforeach()
    foreach(path ${INCLUDE_ROOT}/pal/krpal_export.h ${INCLUDE_ROOT}/pal/devices/krpaldevices_export.h
                 ${CROSSCUTTING_INCLUDE_ROOT}/crosscutting/crosscutting.h ${libdir}/lib${KRPAL}.so
                 ${libdir}/lib${KRPAL}Devices.so ${libdir}/cmake/${KRPAL}/${KRPAL}Config.cmake
                 ${libdir}/cmake/${CROSSCUTTING}/${CROSSCUTTING}Config.cmake ${libdir}/pkgconfig/${KRPAL}.pc
                 ${libdir}/pkgconfig/${KRPAL}Devices.pc)
        if(NOT "./usr/${path}" IN_LIST dev_files)
            message(FATAL_ERROR "${DEB_DEV} lacks ${path}")
        endif()
    endforeach()

    # The demo and the tools: in their folder, needing the runtime package of their version.
    run(dpkg-deb -f "${tools_deb}" Depends)
    expect_match("${RUN_OUTPUT}" "^${DEB_RUNTIME} \\(= ${version}\\)" "${DEB_TOOLS} Depends")
    package_files("${tools_deb}" tools_files)
    foreach(path IN LISTS tools_files)
        if(NOT path MATCHES "^\\./usr/${TOOLS_DIR}/krpal-[a-z]+$")
            message(FATAL_ERROR "${DEB_TOOLS} holds an unexpected file: ${path}")
        endif()
    endforeach()
    if(NOT "./usr/${TOOLS_DIR}/krpal-demo" IN_LIST tools_files)
        message(FATAL_ERROR "${DEB_TOOLS} lacks usr/${TOOLS_DIR}/krpal-demo")
    endif()

    set(${major}_debs "${made}" PARENT_SCOPE)
endfunction()

set(majors ${QT_MAJOR})
make_and_check_packages(${QT_MAJOR} "${WORK_DIR}/build" "${WORK_DIR}/packages")
if(OTHER_QT_MAJOR)
    list(APPEND majors ${OTHER_QT_MAJOR})
    make_and_check_packages(${OTHER_QT_MAJOR} "${WORK_DIR}/build-qt${OTHER_QT_MAJOR}"
                            "${WORK_DIR}/packages-qt${OTHER_QT_MAJOR}")
endif()

# Installed by dpkg itself, into a scratch root with a package database of its own. dpkg refuses
# a package that holds a path an installed package holds, so the second set installing is the
# side-by-side check. The Qt packages they depend on are the host's, outside that root.
file(MAKE_DIRECTORY "${root}/var/lib/dpkg/info" "${root}/var/lib/dpkg/updates")
file(TOUCH "${root}/var/lib/dpkg/status" "${root}/var/lib/dpkg/available")
foreach(major IN LISTS majors)
    run(dpkg "--root=${root}" "--log=${WORK_DIR}/dpkg.log" --force-not-root --force-depends --force-script-chrootless
        -i ${${major}_debs})
endforeach()
run(dpkg-query "--admindir=${root}/var/lib/dpkg" -W "-f=\${Package} \${Status}\n")
message(STATUS "installed side by side:\n${RUN_OUTPUT}")

set(ENV{LD_LIBRARY_PATH} "${root}/usr/${libdir}")
set(ENV{PKG_CONFIG_PATH} "${root}/usr/${libdir}/pkgconfig")
get_filename_component(expected_prefix "${root}/usr" REALPATH)

foreach(major IN LISTS majors)
    krpal_installed_names(${major} "${libdir}")
    run(readelf -d "${root}/usr/${libdir}/lib${KRPAL}.so.1")
    expect_match("${RUN_OUTPUT}" "Library soname: \\[lib${KRPAL}\\.so\\.1\\]" "lib${KRPAL}.so.1")

    # CMake consumer.
    run("${CMAKE_COMMAND}" -S "${CONSUMER_DIR}" -B "${WORK_DIR}/cmake-build-qt${major}" -G "${GENERATOR}"
        "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_PREFIX_PATH=${root}/usr"
        -DKRPAL_PACKAGE=${KRPAL})
    run("${CMAKE_COMMAND}" --build "${WORK_DIR}/cmake-build-qt${major}")
    run("${WORK_DIR}/cmake-build-qt${major}/consumer")
    message(STATUS "${KRPAL}: ${RUN_OUTPUT}")

    # pkg-config consumer: the prefix is found from where the .pc file lies.
    run(pkg-config --variable=prefix ${KRPAL})
    string(STRIP "${RUN_OUTPUT}" pc_prefix)
    get_filename_component(pc_prefix "${pc_prefix}" REALPATH)
    if(NOT pc_prefix STREQUAL expected_prefix)
        message(FATAL_ERROR "${KRPAL}.pc gives the prefix ${pc_prefix} instead of ${expected_prefix}")
    endif()
    run(pkg-config --cflags --libs ${KRPAL}Devices)
    string(STRIP "${RUN_OUTPUT}" pcflags)
    separate_arguments(pcflags UNIX_COMMAND "${pcflags}")
    run("${CXX_COMPILER}" -std=c++17 -fPIC "${CONSUMER_DIR}/main.cpp" -o "${WORK_DIR}/consumer-pc-qt${major}" ${pcflags})
    run("${WORK_DIR}/consumer-pc-qt${major}")
    message(STATUS "${KRPAL}.pc: ${RUN_OUTPUT}")
endforeach()
