# Prepares the Windows system that the tests run in: puts the library STAND_IN into its system
# folder, under the name of the host's smart-card library. EMULATOR is the command that runs Windows
# programs; Z: is where it shows this machine's files.
string(REPLACE "/" "\\" source "Z:${STAND_IN}")
execute_process(
    COMMAND ${EMULATOR} cmd /c copy /y ${source} C:\\windows\\system32\\winscard.dll
    RESULT_VARIABLE result
    OUTPUT_VARIABLE output)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "the copy gives ${result}: ${output}")
endif()
