# CLI11 and nlohmann's JSON are header-only Debian packages. Their folders are given by links of their
# own: /usr/include as a whole holds this machine's headers, which must not come before those of the
# target.
function(add_header_package target folder header)
    find_path(${target}_INCLUDE ${folder}/${header} PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/${target})
    file(CREATE_LINK ${${target}_INCLUDE}/${folder} ${CMAKE_BINARY_DIR}/${target}/${folder} SYMBOLIC)
    add_library(${target} INTERFACE)
    target_include_directories(${target} SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/${target})
endfunction()

add_header_package(cli11 CLI CLI.hpp)
add_header_package(json nlohmann json.hpp)
