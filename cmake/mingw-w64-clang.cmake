# The same target as mingw-w64.cmake with clang, on the same runtime and C++ library: shows that the
# code needs no extension of one compiler.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)

# clang does not look for this target's library where Debian has it, in a folder for each thread model.
file(GLOB runtime /usr/lib/gcc/x86_64-w64-mingw32/*-posix)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${runtime}/include/c++ ${runtime}/include/c++/x86_64-w64-mingw32)
# Thread-local variables as that library has them.
set(CMAKE_CXX_FLAGS_INIT -femulated-tls)
# GNU ld, as lld loses unwind data of that library's objects: registers are wrong after some exceptions.
# It warns of each object that the two compilers lay out differently; the option that hides that would
# hide missing symbols, too.
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "-pthread -L${runtime}")
endforeach()
# Where GCC compares and swaps, clang calls.
set(CMAKE_CXX_STANDARD_LIBRARIES "${CMAKE_CXX_STANDARD_LIBRARIES} -latomic")
