# The programs of the machine that the cards are on.
if(TEZ_CHECKED)
    # The check of virtual tables needs a pipe, and takes the lack of one for an object of another type:
    # the agent has to live through a time without descriptors.
    add_compile_options(-fsanitize=address -fno-sanitize-recover=all -fno-sanitize=vptr)
    add_link_options(-fsanitize=address,undefined)
endif()

include(cmake/header_packages.cmake)
add_subdirectory(pcscd)
if(TEZ_BUILD_TESTS)
    add_subdirectory(tests)
endif()
