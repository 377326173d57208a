# The fuzz targets and what they link, with a count of where each input leads and the sanitizers for
# addresses and undefined behaviour.
add_compile_options(-O1 -gline-tables-only -fsanitize=fuzzer-no-link,address,undefined
                    -fno-sanitize-recover=all)
add_link_options(-fsanitize=address,undefined)
add_compile_definitions(_GLIBCXX_ASSERTIONS)
link_libraries(atomic) # where GCC compares and swaps, clang calls
set(CMAKE_UNITY_BUILD ON) # most of the time would go into headers

include(cmake/header_packages.cmake)
add_subdirectory(pcscd EXCLUDE_FROM_ALL)
add_subdirectory(fuzz)
