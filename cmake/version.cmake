# Included, it makes the target tez_version: the header tez_version.h, which says what is built, in a
# folder of its own under the build. Run as a script, by each build, it writes that header: a commit
# needs no new configuration, and what is the same is left untouched.
if(NOT CMAKE_SCRIPT_MODE_FILE)
    set(header ${CMAKE_BINARY_DIR}/version/tez_version.h)
    add_custom_target(
        tez_version_header
        COMMAND
            ${CMAKE_COMMAND} -D HEADER=${header} -D PROJECT_VERSION_MAJOR=${PROJECT_VERSION_MAJOR} -D
            PROJECT_VERSION_MINOR=${PROJECT_VERSION_MINOR} -D
            PROJECT_VERSION_PATCH=${PROJECT_VERSION_PATCH} -D PROJECT_VERSION=${PROJECT_VERSION} -P
            ${CMAKE_CURRENT_LIST_FILE}
        BYPRODUCTS ${header}
        COMMENT "Noting version and commit")
    add_library(tez_version INTERFACE)
    add_dependencies(tez_version tez_version_header)
    target_include_directories(tez_version INTERFACE ${CMAKE_BINARY_DIR}/version)
    return()
endif()

execute_process(
    COMMAND git describe --always --dirty --exclude=* --abbrev=12
    WORKING_DIRECTORY ${CMAKE_CURRENT_LIST_DIR}
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    set(commit "commit unknown") # no clone, or no git
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/version.h.in ${HEADER} @ONLY)
