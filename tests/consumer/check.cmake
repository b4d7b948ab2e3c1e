# Installs the build into a scratch prefix and consumes it as an application would:
# CMake's find_package, then pkg-config. Also checks the library's SONAME and exports, and
# builds the README's model application (examples/quickstart) both ways, as its readers do.
cmake_minimum_required(VERSION 3.16)

include("${CMAKE_CURRENT_LIST_DIR}/../cmake/checkhelpers.cmake")

set(prefix "${WORK_DIR}/prefix")
file(REMOVE_RECURSE "${WORK_DIR}")
run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")

foreach(path lib/libKrPal.so.1 lib/libKrPal.so lib/libKrPalDevices.so.1 lib/libKrPalDevices.so lib/libCrosscutting.so.1
             include/pal/krpal_export.h include/pal/devices/krpaldevices_export.h lib/pkgconfig/KrPalDevices.pc
             include/crosscutting/crosscutting.h lib/cmake/KrPal/KrPalConfig.cmake
             lib/cmake/KrPal/KrPalConfigVersion.cmake lib/cmake/KrPal/KrPalTargets.cmake lib/pkgconfig/KrPal.pc)
    if(NOT EXISTS "${prefix}/${path}")
        message(FATAL_ERROR "not installed: ${path}")
    endif()
endforeach()

foreach(library libKrPal libKrPalDevices)
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
        # check of moc's metaObject() emits beside every QObject class.
        if(SANITIZE AND line MATCHES " (__odr_asan\\._ZN3Pal|typeinfo (name )?for QObjectData$)")
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
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${flags}")
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/cmake-build")
run("${WORK_DIR}/cmake-build/consumer")
message(STATUS "${RUN_OUTPUT}")

# The model application, with its own CMake project.
run("${CMAKE_COMMAND}" -S "${QUICKSTART_DIR}" -B "${WORK_DIR}/quickstart-build" "-DCMAKE_PREFIX_PATH=${prefix}"
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
run(pkg-config --cflags --libs KrPalDevices)
string(STRIP "${RUN_OUTPUT}" pcflags)
separate_arguments(pcflags UNIX_COMMAND "${pcflags}")
run("${CXX_COMPILER}" -std=c++17 -fPIC ${flags} "${SOURCE_DIR}/main.cpp" -o "${WORK_DIR}/consumer-pc" ${pcflags})
set(ENV{LD_LIBRARY_PATH} "${prefix}/lib")
run("${WORK_DIR}/consumer-pc")
message(STATUS "${RUN_OUTPUT}")

# The model application with pkg-config, as the README shows it: moc makes the meta-object
# of its proxy class, which main.cpp includes as main.moc.
run(pkg-config --variable=host_bins Qt5Core)
string(STRIP "${RUN_OUTPUT}" qtbins)
run(pkg-config --cflags KrPal)
string(STRIP "${RUN_OUTPUT}" mocflags)
separate_arguments(mocflags UNIX_COMMAND "${mocflags}")
run("${qtbins}/moc" ${mocflags} "${QUICKSTART_DIR}/main.cpp" -o "${WORK_DIR}/main.moc")
run("${CXX_COMPILER}" -std=c++17 -fPIC ${flags} "-I${WORK_DIR}" "${QUICKSTART_DIR}/main.cpp" -o
    "${WORK_DIR}/quickstart-pc" ${pcflags})
if(run_quickstart)
    run("${WORK_DIR}/quickstart-pc")
endif()
