# The programs of the machine that the cards are on.
if(TEZ_CHECKED)
    add_compile_options(-fsanitize=address -fno-sanitize-recover=all)
    add_link_options(-fsanitize=address,undefined)
endif()

include(cmake/header_packages.cmake)
add_subdirectory(pcscd)
add_subdirectory(tests)
