# Helpers shared by the CTest scripts that install, package and consume the library.

# Runs a command and fails the check with its output when it fails; its standard output is
# left in RUN_OUTPUT.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

# The names that a build against Qt <major> installs, as applications and packages know them:
#   KRPAL         library, CMake package, its namespace and pkg-config module: KrPal, KrPalQt6
#   CROSSCUTTING  the companion stand-in and its CMake package: Crosscutting, CrosscuttingQt6
#   INCLUDE_ROOT, CROSSCUTTING_INCLUDE_ROOT  folders under include/ that hold pal/ and crosscutting/
#   TOOLS_DIR     folder of the demo and the tools, under the prefix with <libdir> for the library
#                 folder: bin, <libdir>/krpal-qt6/bin
#   DEB_RUNTIME, DEB_DEV, DEB_TOOLS  the Debian packages
macro(krpal_installed_names major libdir)
    if("${major}" STREQUAL "6")
        set(KRPAL KrPalQt6)
        set(CROSSCUTTING CrosscuttingQt6)
        set(INCLUDE_ROOT include/KrPalQt6)
        set(CROSSCUTTING_INCLUDE_ROOT include/CrosscuttingQt6)
        set(TOOLS_DIR "${libdir}/krpal-qt6/bin")
        set(DEB_RUNTIME libkrpalqt6-1)
        set(DEB_DEV libkrpalqt6-dev)
        set(DEB_TOOLS krpalqt6-tools)
    else()
        set(KRPAL KrPal)
        set(CROSSCUTTING Crosscutting)
        set(INCLUDE_ROOT include)
        set(CROSSCUTTING_INCLUDE_ROOT include)
        set(TOOLS_DIR bin)
        set(DEB_RUNTIME libkrpal1)
        set(DEB_DEV libkrpal-dev)
        set(DEB_TOOLS krpal-tools)
    endif()
endmacro()
