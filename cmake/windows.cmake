# The library, and the programs of the machine that it runs on.
enable_language(RC)

# The library and every program beside it depend on nothing but what Windows brings along.
add_link_options(-static)
# The same bytes wherever and whenever they are made: no time, and paths as the repository has them.
add_link_options(-Wl,--no-insert-timestamp)
add_compile_options(-fdebug-prefix-map=${CMAKE_SOURCE_DIR}=. -fmacro-prefix-map=${CMAKE_SOURCE_DIR}=.
                    -fdebug-prefix-map=${CMAKE_BINARY_DIR}=.)
# Wine's debugger does not read the compiler's default, version 5.
add_compile_options($<$<CONFIG:Debug,RelWithDebInfo>:-gdwarf-4>)
if(TEZ_CHECKED)
    # There is no runtime library that could tell more.
    add_compile_options(-fsanitize-undefined-trap-on-error)
endif()

# A caller may keep a value in a register that it has seen an inline function leave alone; on this
# target GCC does so even where the linker takes the function from another file, which was
# compiled with other options and uses that register.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fno-ipa-ra>)

target_compile_definitions(tez_options INTERFACE _WIN32_WINNT=0x0602 WIN32_LEAN_AND_MEAN NOMINMAX)

add_subdirectory(src)
if(TEZ_BUILD_TESTS OR TEZ_BUILD_TOOLS) # the tests run the programs
    include(cmake/header_packages.cmake)
    add_subdirectory(pcscd)
    add_subdirectory(tools)
endif()
if(TEZ_BUILD_TESTS)
    add_subdirectory(tests)
    add_subdirectory(bench)
endif()

# The native build's tests run with these: one run, one count.
file(CONFIGURE OUTPUT native_tests.cmake CONTENT [[
if(EXISTS "@TEZ_NATIVE_BUILD@/CTestTestfile.cmake")
    subdirs("@TEZ_NATIVE_BUILD@")
endif()
]] @ONLY)
set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_BINARY_DIR}/native_tests.cmake)
