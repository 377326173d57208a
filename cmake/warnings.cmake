# The warnings that the project's own code is compiled with, each one an error. Compilers know
# different ones; one that stands in neither list compiles the code with its own defaults.
set(TEZ_WARNINGS -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wcast-qual
                 -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wundef
                 -Wnull-dereference)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    list(APPEND TEZ_WARNINGS -Wduplicated-cond -Wlogical-op -Wuseless-cast)
    if(WIN32)
        list(APPEND TEZ_WARNINGS -Wno-pedantic-ms-format)
    endif()
elseif(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    list(APPEND TEZ_WARNINGS -Wimplicit-fallthrough -Wextra-semi -Wunreachable-code)
else()
    set(TEZ_WARNINGS)
endif()
