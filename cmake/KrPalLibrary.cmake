# One shared library of the project, as libKrPal and libKrPalDevices are made:
#
#   krpal_add_library(<target> BASE_NAME <export macro base> OUTPUT_NAME <file name>
#                     EXPORT_HEADER <generated header> HEADER_DESTINATION <include dir>
#                     CLASSES <name>... [INTERNAL <source>...])
#
# Each class is <name>.h and <name>.cpp in the calling folder; their headers and the export
# header are installed, the internal sources never are. The version is the project's, the
# SONAME its major version.
function(krpal_add_library target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "BASE_NAME;OUTPUT_NAME;EXPORT_HEADER;HEADER_DESTINATION"
                          "CLASSES;INTERNAL")
    set(sources ${arg_INTERNAL})
    set(headers "${arg_EXPORT_HEADER}")
    foreach(class IN LISTS arg_CLASSES)
        list(APPEND sources ${class}.cpp ${class}.h)
        list(APPEND headers "${CMAKE_CURRENT_SOURCE_DIR}/${class}.h")
    endforeach()

    add_library(${target} SHARED ${sources})
    generate_export_header(${target} BASE_NAME ${arg_BASE_NAME} EXPORT_FILE_NAME "${arg_EXPORT_HEADER}")
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${arg_OUTPUT_NAME}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        PUBLIC_HEADER "${headers}")
    # The project's libraries are installed side by side: each finds the others there on any
    # other prefix. Under /usr the dynamic loader's own search finds them, and packages carry
    # no RUNPATH.
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        set_target_properties(${target} PROPERTIES INSTALL_RPATH "\$ORIGIN")
    endif()
    krpal_set_library_defaults(${target})

    install(TARGETS ${target} EXPORT KrPalTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT development
        PUBLIC_HEADER DESTINATION "${arg_HEADER_DESTINATION}" COMPONENT development)
endfunction()
