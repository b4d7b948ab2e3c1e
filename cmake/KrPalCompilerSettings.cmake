# Settings shared by the project's own targets. Everything is a target property, so nothing
# leaks into consumers of the installed package.

if(KRPAL_SANITIZE)
    if(NOT KRPAL_SANITIZE MATCHES "^(address,undefined|undefined,address|address|undefined|thread)$")
        message(FATAL_ERROR "KRPAL_SANITIZE must be empty, address,undefined or thread (got '${KRPAL_SANITIZE}')")
    endif()
    # Sanitizers apply to every program of the build, tests and tools included.
    add_compile_options(-fsanitize=${KRPAL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KRPAL_SANITIZE})
endif()

if(KRPAL_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "KRPAL_BUILD_FUZZERS needs clang's libFuzzer: configure with -DCMAKE_CXX_COMPILER=clang++")
    endif()
    if(NOT KRPAL_SANITIZE MATCHES "address")
        message(FATAL_ERROR "KRPAL_BUILD_FUZZERS needs -DKRPAL_SANITIZE=address,undefined")
    endif()
    # Coverage feedback from the library itself, not only from the fuzz targets; the
    # targets link libFuzzer with -fsanitize=fuzzer.
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Warnings, Qt's stricter string handling, and the project's compile definitions.
function(krpal_set_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
    target_compile_definitions(${target} PRIVATE
        QT_DISABLE_DEPRECATED_BEFORE=${KRPAL_QT_DISABLE_DEPRECATED_BEFORE}
        QT_NO_CAST_TO_ASCII
        QT_NO_FOREACH
        QT_USE_QSTRINGBUILDER)
endfunction()

# A shared library of the project: fixed text must be spelled out, and a missing symbol
# fails the link here instead of an application on the board.
function(krpal_set_library_defaults target)
    krpal_set_target_defaults(${target})
    target_compile_definitions(${target} PRIVATE QT_NO_CAST_FROM_ASCII)
    # clang links the sanitizer runtimes into executables only, so a sanitized shared library
    # leaves their symbols to the program that loads it.
    if(NOT (KRPAL_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang"))
        target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
endfunction()

# Fails the configuration when a program or library of the project was added without
# krpal_set_target_defaults(): it would compile without the deprecation limit and warnings.
function(krpal_check_target_defaults directory)
    get_property(targets DIRECTORY "${directory}" PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target IN LISTS targets)
        get_target_property(type ${target} TYPE)
        if(NOT type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|STATIC_LIBRARY|MODULE_LIBRARY|OBJECT_LIBRARY)$")
            continue()
        endif()
        get_target_property(definitions ${target} COMPILE_DEFINITIONS)
        if(NOT "QT_DISABLE_DEPRECATED_BEFORE=${KRPAL_QT_DISABLE_DEPRECATED_BEFORE}" IN_LIST definitions)
            message(FATAL_ERROR "${target} (${directory}) lacks the project's settings: call krpal_set_target_defaults(${target})")
        endif()
    endforeach()
    get_property(subdirectories DIRECTORY "${directory}" PROPERTY SUBDIRECTORIES)
    foreach(subdirectory IN LISTS subdirectories)
        krpal_check_target_defaults("${subdirectory}")
    endforeach()
endfunction()
