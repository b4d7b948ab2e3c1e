# Makes the Debian packages as a board integrator would, from a build configured for /usr,
# checks their names, fields and contents, unpacks them into a scratch root with dpkg -x and
# builds the consumer project against that root: with find_package(KrPal) and with pkg-config.
cmake_minimum_required(VERSION 3.16)

include("${CMAKE_CURRENT_LIST_DIR}/../cmake/checkhelpers.cmake")

function(expect_match text regex what)
    if(NOT text MATCHES "${regex}")
        message(FATAL_ERROR "${what}: expected to match '${regex}', got:\n${text}")
    endif()
endfunction()

# The package build stays between runs, so only changed sources are compiled again.
set(build "${WORK_DIR}/build")
set(packages "${WORK_DIR}/packages")
set(root "${WORK_DIR}/root")
file(REMOVE_RECURSE "${packages}" "${root}" "${WORK_DIR}/cmake-build")
run("${CMAKE_COMMAND}" -S "${SOURCE_DIR}" -B "${build}" -G "${GENERATOR}" "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}"
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr
    -DKRPAL_BUILD_TESTS=OFF)
run("${CMAKE_COMMAND}" --build "${build}" --parallel 2)
run(cpack --config "${build}/CPackConfig.cmake" -B "${packages}")

run(dpkg --print-architecture)
string(STRIP "${RUN_OUTPUT}" arch)
set(version "${VERSION}-1")
set(libdir "usr/lib")
if(LIBRARY_ARCHITECTURE)
    set(libdir "usr/lib/${LIBRARY_ARCHITECTURE}")
endif()
set(runtime_deb "${packages}/libkrpal1_${version}_${arch}.deb")
set(dev_deb "${packages}/libkrpal-dev_${version}_${arch}.deb")
foreach(deb "${runtime_deb}" "${dev_deb}")
    if(NOT EXISTS "${deb}")
        file(GLOB made "${packages}/*.deb")
        message(FATAL_ERROR "not made: ${deb}\nmade: ${made}")
    endif()
endforeach()

# The runtime package: the two libraries, the Qt runtime, and a shlibs file for dependants.
run(dpkg-deb -f "${runtime_deb}" Depends)
expect_match("${RUN_OUTPUT}" "libqt5core5a \\(>= 5\\." "libkrpal1 Depends")
expect_match("${RUN_OUTPUT}" "libqt5positioning5 \\(>= 5\\." "libkrpal1 Depends")
run(dpkg-deb -I "${runtime_deb}" shlibs)
expect_match("${RUN_OUTPUT}" "^libCrosscutting 1 libkrpal1 \\(>= ${version}\\)\nlibKrPal 1 libkrpal1 \\(>= ${version}\\)\nlibKrPalDevices 1 libkrpal1 \\(>= ${version}\\)\n?$"
             "libkrpal1 shlibs")
run(dpkg-deb -c "${runtime_deb}")
string(REGEX MATCHALL "\\./[^\n]*[^/\n]\n" runtime_files "${RUN_OUTPUT}")
string(REGEX REPLACE " -> [^\n]*" "" runtime_files "${runtime_files}")
string(REPLACE "\n" "" runtime_files "${runtime_files}")
list(SORT runtime_files)
set(expected_runtime_files "./${libdir}/libCrosscutting.so.1" "./${libdir}/libCrosscutting.so.1.0.0"
                           "./${libdir}/libKrPal.so.1" "./${libdir}/libKrPal.so.${VERSION}"
                           "./${libdir}/libKrPalDevices.so.1" "./${libdir}/libKrPalDevices.so.${VERSION}")
if(NOT runtime_files STREQUAL expected_runtime_files)
    message(FATAL_ERROR "libkrpal1 holds\n  ${runtime_files}\ninstead of\n  ${expected_runtime_files}")
endif()

# The development package: this exact runtime, the Qt development packages, and only headers,
# the .so links and the package files.
run(dpkg-deb -f "${dev_deb}" Depends)
expect_match("${RUN_OUTPUT}" "^libkrpal1 \\(= ${version}\\), qtbase5-dev \\(>= 5\\.15\\), qtpositioning5-dev \\(>= 5\\.15\\)\n$"
             "libkrpal-dev Depends")
run(dpkg-deb -c "${dev_deb}")
string(REGEX MATCHALL "\\./[^\n]*[^/\n]\n" dev_files "${RUN_OUTPUT}")
string(REGEX REPLACE " -> [^\n]*" "" dev_files "${dev_files}")
string(REPLACE "\n" "" dev_files "${dev_files}")
foreach(path IN LISTS dev_files)
    if(NOT path MATCHES "^\\./usr/include/(pal|pal/devices|crosscutting)/[a-z_]+\\.h$"
       AND NOT path MATCHES "^\\./${libdir}/(lib(KrPal|KrPalDevices|Crosscutting)\\.so|cmake/(KrPal|Crosscutting)/[A-Za-z-]+\\.cmake|pkgconfig/KrPal(Devices)?\\.pc)$")
        message(FATAL_ERROR "libkrpal-dev holds an unexpected file: ${path}")
    endif()
endforeach()
foreach(path usr/include/pal/krpal_export.h usr/include/pal/devices/krpaldevices_export.h
             usr/include/crosscutting/crosscutting.h ${libdir}/libKrPal.so ${libdir}/libKrPalDevices.so
             ${libdir}/cmake/KrPal/KrPalConfig.cmake ${libdir}/cmake/Crosscutting/CrosscuttingConfig.cmake
             ${libdir}/pkgconfig/KrPal.pc ${libdir}/pkgconfig/KrPalDevices.pc)
    if(NOT "./${path}" IN_LIST dev_files)
        message(FATAL_ERROR "libkrpal-dev lacks ${path}")
    endif()
endforeach()

# The demo and the tools, once the build installs them, need the runtime package of their version.
set(tools_deb "${packages}/krpal-tools_${version}_${arch}.deb")
if(EXISTS "${tools_deb}")
    run(dpkg-deb -f "${tools_deb}" Depends)
    expect_match("${RUN_OUTPUT}" "^libkrpal1 \\(= ${version}\\)" "krpal-tools Depends")
endif()

# Unpacked as dpkg would install them, under a scratch root instead of /.
file(GLOB debs "${packages}/*.deb")
foreach(deb IN LISTS debs)
    run(dpkg -x "${deb}" "${root}")
endforeach()
run(readelf -d "${root}/${libdir}/libKrPal.so.1")
expect_match("${RUN_OUTPUT}" "Library soname: \\[libKrPal\\.so\\.1\\]" "libKrPal.so.1")
set(ENV{LD_LIBRARY_PATH} "${root}/${libdir}")

# CMake consumer.
run("${CMAKE_COMMAND}" -S "${CONSUMER_DIR}" -B "${WORK_DIR}/cmake-build" -G "${GENERATOR}"
    "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_PREFIX_PATH=${root}/usr")
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/cmake-build")
run("${WORK_DIR}/cmake-build/consumer")
message(STATUS "${RUN_OUTPUT}")

# pkg-config consumer: the prefix is found from where the .pc file lies.
set(ENV{PKG_CONFIG_PATH} "${root}/${libdir}/pkgconfig")
run(pkg-config --variable=prefix KrPal)
string(STRIP "${RUN_OUTPUT}" pc_prefix)
get_filename_component(pc_prefix "${pc_prefix}" REALPATH)
get_filename_component(expected_prefix "${root}/usr" REALPATH)
if(NOT pc_prefix STREQUAL expected_prefix)
    message(FATAL_ERROR "KrPal.pc gives the prefix ${pc_prefix} instead of ${expected_prefix}")
endif()
run(pkg-config --cflags --libs KrPalDevices)
string(STRIP "${RUN_OUTPUT}" pcflags)
separate_arguments(pcflags UNIX_COMMAND "${pcflags}")
run("${CXX_COMPILER}" -std=c++17 -fPIC "${CONSUMER_DIR}/main.cpp" -o "${WORK_DIR}/consumer-pc" ${pcflags})
run("${WORK_DIR}/consumer-pc")
message(STATUS "${RUN_OUTPUT}")
