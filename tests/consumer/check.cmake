# Installs the build into a scratch prefix and consumes it as an application would:
# CMake's find_package, then pkg-config. Also checks the library's SONAME and exports, and
# builds the README's model application (examples/quickstart) both ways, as its readers do.
# QT_MAJOR (5 or 6) gives the names that the build installs.
cmake_minimum_required(VERSION 3.16)

include("${CMAKE_CURRENT_LIST_DIR}/../cmake/checkhelpers.cmake")
krpal_installed_names("${QT_MAJOR}" lib)

set(prefix "${WORK_DIR}/prefix")
file(REMOVE_RECURSE "${WORK_DIR}")
run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")

foreach(path lib/lib${KRPAL}.so.1 lib/lib${KRPAL}.so lib/lib${KRPAL}Devices.so.1 lib/lib${KRPAL}Devices.so
             lib/lib${CROSSCUTTING}.so.1 ${INCLUDE_ROOT}/pal/krpal_export.h ${INCLUDE_ROOT}/pal/devices/krpaldevices_export.h
             ${CROSSCUTTING_INCLUDE_ROOT}/crosscutting/crosscutting.h lib/cmake/${KRPAL}/${KRPAL}Config.cmake
             lib/cmake/${KRPAL}/${KRPAL}ConfigVersion.cmake lib/cmake/${KRPAL}/${KRPAL}Targets.cmake
             lib/cmake/${CROSSCUTTING}/${CROSSCUTTING}Config.cmake lib/pkgconfig/${KRPAL}.pc
             lib/pkgconfig/${KRPAL}Devices.pc)
    if(NOT EXISTS "${prefix}/${path}")
        message(FATAL_ERROR "not installed: ${path}")
    endif()
endforeach()

# The exported link interfaces name Qt by its major version, never by Qt::, which means the
# Qt that an application happened to find first.
file(GLOB target_files "${prefix}/lib/cmake/*/*Targets.cmake")
foreach(target_file IN LISTS target_files)
    file(READ "${target_file}" exported)
    if(exported MATCHES "[^0-9A-Za-z_]Qt::[A-Za-z]+")
        message(FATAL_ERROR "${target_file} links the versionless ${CMAKE_MATCH_0}: link Qt${QT_MAJOR}:: instead")
    endif()
endforeach()

foreach(library lib${KRPAL} lib${KRPAL}Devices)
    run(readelf -d "${prefix}/lib/${library}.so.1")
    if(NOT RUN_OUTPUT MATCHES "Library soname: \\[${library}\\.so\\.1\\]")
        message(FATAL_ERROR "${library}.so.1 lacks its SONAME:\n${RUN_OUTPUT}")
    endif()

    # Only the public classes of namespace Pal leave the library.
    run(nm -D --defined-only -C "${prefix}/lib/${library}.so.1")
    string(REPLACE "\n" ";" symbols "${RUN_OUTPUT}")
    foreach(line IN LISTS symbols)
        if(line STREQUAL "" OR line MATCHES " (_init|_fini|_edata|_end|__bss_start)$")
            continue()
        endif()
        # Type information of standard-library templates (shared_ptr, std::function), and the
        # static locals of their inline functions, are emitted with vague linkage wherever they
        # are used; they belong to no class of ours.
        if(line MATCHES " [VW] (typeinfo|typeinfo name|vtable) for std::" OR line MATCHES " [uV] std::")
            continue()
        endif()
        # Sanitizer instrumentation of the library's own code: AddressSanitizer's ODR indicator of
        # each exported Pal variable, and the type information of Qt's QObjectData that the vptr
        # check of moc's metaObject() emits beside every QObject class; in the fuzz build, the
        # linker's bounds of the coverage counters' section.
        if(SANITIZE AND line MATCHES " (__odr_asan\\._ZN3Pal|typeinfo (name )?for QObjectData$|__(start|stop)___sancov_)")
            continue()
        endif()
        # clang's check of indirect calls (-fsanitize=function, part of undefined) compares the
        # type information of function types, which it emits with vague linkage where it calls.
        if(SANITIZE AND line MATCHES " V typeinfo (name )?for [^(]+ \\(.*\\)$")
            continue()
        endif()
        # The companion library's mutex has its destructor inline in its header, so the registry
        # mutex's vtable and type information are emitted here with vague linkage, as in every
        # user of that mutex; they stay the companion library's.
        if(line MATCHES " [VW] (typeinfo|typeinfo name|vtable) for Crosscutting::")
            continue()
        endif()
        if(NOT line MATCHES "Pal::" OR line MATCHES "Pal::Internal")
            message(FATAL_ERROR "exported symbol outside the public classes: ${line}")
        endif()
    endforeach()
endforeach()

set(flags "")
if(SANITIZE)
    set(flags "-fsanitize=${SANITIZE}")
endif()

# CMake consumer.
run("${CMAKE_COMMAND}" -S "${SOURCE_DIR}" -B "${WORK_DIR}/cmake-build" "-DCMAKE_PREFIX_PATH=${prefix}"
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${flags}" -DKRPAL_PACKAGE=${KRPAL})
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/cmake-build")
run("${WORK_DIR}/cmake-build/consumer")
message(STATUS "${RUN_OUTPUT}")

# The model application, with its own CMake project.
run("${CMAKE_COMMAND}" -S "${QUICKSTART_DIR}" -B "${WORK_DIR}/quickstart-build" "-DCMAKE_PREFIX_PATH=${prefix}"
    -DKRPAL_PACKAGE=${KRPAL}
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${flags}")
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/quickstart-build")
# Built in every build, run where the CTest entry quickstart runs too: not under the thread
# sanitizer, which cannot see how Qt publishes its functor connection (tests/CMakeLists.txt).
set(run_quickstart TRUE)
if(SANITIZE STREQUAL "thread")
    set(run_quickstart FALSE)
endif()
if(run_quickstart)
    run("${WORK_DIR}/quickstart-build/krpal-quickstart")
    if(NOT RUN_OUTPUT MATCHES "\"type\": \"Temperature\"")
        message(FATAL_ERROR "krpal-quickstart printed no self-test document:\n${RUN_OUTPUT}")
    endif()
endif()

# pkg-config consumer.
set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
run(pkg-config --cflags --libs ${KRPAL}Devices)
string(STRIP "${RUN_OUTPUT}" pcflags)
separate_arguments(pcflags UNIX_COMMAND "${pcflags}")
run("${CXX_COMPILER}" -std=c++17 -fPIC ${flags} "${SOURCE_DIR}/main.cpp" -o "${WORK_DIR}/consumer-pc" ${pcflags})
set(ENV{LD_LIBRARY_PATH} "${prefix}/lib")
run("${WORK_DIR}/consumer-pc")
message(STATUS "${RUN_OUTPUT}")

# The model application with pkg-config, as the README shows it: moc makes the meta-object
# of its proxy class, which main.cpp includes as main.moc.
# Qt 5 names moc's folder host_bins; Qt 6 keeps moc in libexecdir.
if(QT_MAJOR STREQUAL "6")
    run(pkg-config --variable=libexecdir Qt6Core)
else()
    run(pkg-config --variable=host_bins Qt5Core)
endif()
string(STRIP "${RUN_OUTPUT}" qtbins)
run(pkg-config --cflags ${KRPAL})
string(STRIP "${RUN_OUTPUT}" mocflags)
separate_arguments(mocflags UNIX_COMMAND "${mocflags}")
run("${qtbins}/moc" ${mocflags} "${QUICKSTART_DIR}/main.cpp" -o "${WORK_DIR}/main.moc")
run("${CXX_COMPILER}" -std=c++17 -fPIC ${flags} "-I${WORK_DIR}" "${QUICKSTART_DIR}/main.cpp" -o
    "${WORK_DIR}/quickstart-pc" ${pcflags})
if(run_quickstart)
    run("${WORK_DIR}/quickstart-pc")
endif()

# A Qt 6 application cannot link the Qt 5 library, nor the other way round: Qt's targets carry
# their major version, and CMake refuses a program that would link both. Checked where the
# other Qt is installed.
set(other_major 6)
if(QT_MAJOR STREQUAL "6")
    set(other_major 5)
endif()
execute_process(COMMAND "${CMAKE_COMMAND}" -S "${SOURCE_DIR}" -B "${WORK_DIR}/mixed-build" "-DCMAKE_PREFIX_PATH=${prefix}"
                        "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" -DKRPAL_PACKAGE=${KRPAL} -DKRPAL_MIXED_QT=${other_major}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(rc EQUAL 0)
    message(FATAL_ERROR "a program linking ${KRPAL} and Qt ${other_major} was configured:\n${out}")
elseif(NOT err MATCHES "Qt ${other_major} is not installed" AND NOT err MATCHES "INTERFACE_QT_MAJOR_VERSION property")
    message(FATAL_ERROR "a program linking ${KRPAL} and Qt ${other_major} failed for another reason:\n${err}")
endif()
