# The API reference, built with Doxygen when it is found: cmake --build <build> --target docs.
# HTML in <build>/docs/html, installed with the development component once built. The CTest
# entry api_docs builds it again and fails on any warning (an undocumented public class or
# function, a broken reference), listing them as file:line.
find_package(Doxygen)
if(NOT DOXYGEN_FOUND)
    return()
endif()

set(KRPAL_DOCS_DIR "${PROJECT_BINARY_DIR}/docs")
configure_file("${PROJECT_SOURCE_DIR}/cmake/Doxyfile.in" "${KRPAL_DOCS_DIR}/Doxyfile" @ONLY)
add_custom_target(docs
    COMMAND "${CMAKE_COMMAND}" -DDOXYGEN=${DOXYGEN_EXECUTABLE} -DDOCS_DIR=${KRPAL_DOCS_DIR} -DFAIL_ON_WARNINGS=OFF
            "-DSHOWN_AS=${PROJECT_BINARY_DIR}/devices/source-include/pal/devices/=${PROJECT_SOURCE_DIR}/devices/"
            -P "${PROJECT_SOURCE_DIR}/cmake/KrPalRunDoxygen.cmake"
    COMMENT "API reference in ${KRPAL_DOCS_DIR}/html"
    VERBATIM)
install(DIRECTORY "${KRPAL_DOCS_DIR}/html/" DESTINATION "${CMAKE_INSTALL_DOCDIR}/html" COMPONENT development
        OPTIONAL)

if(KRPAL_BUILD_TESTS)
    add_test(NAME api_docs
        COMMAND "${CMAKE_COMMAND}" -DDOXYGEN=${DOXYGEN_EXECUTABLE} -DDOCS_DIR=${KRPAL_DOCS_DIR} -DFAIL_ON_WARNINGS=ON
                "-DSHOWN_AS=${PROJECT_BINARY_DIR}/devices/source-include/pal/devices/=${PROJECT_SOURCE_DIR}/devices/"
                -P "${PROJECT_SOURCE_DIR}/cmake/KrPalRunDoxygen.cmake")
    set_tests_properties(api_docs PROPERTIES TIMEOUT 120 LABELS "docs")
endif()
