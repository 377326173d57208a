# CLI11 is a header-only Debian package. Its folder is given by a link of its own: /usr/include as a
# whole holds this machine's headers, which must not come before those of the target.
find_path(CLI11_INCLUDE CLI/CLI.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/cli11)
file(CREATE_LINK ${CLI11_INCLUDE}/CLI ${CMAKE_BINARY_DIR}/cli11/CLI SYMBOLIC)
add_library(cli11 INTERFACE)
target_include_directories(cli11 SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/cli11)
