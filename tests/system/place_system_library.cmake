# Prepares the Windows system that the tests run in: puts the library STAND_IN into its system
# folder, under the name of the host's smart-card library, and removes the logs of earlier runs.
# EMULATOR is the command that runs Windows programs; Z: is where it shows this machine's files.
string(REPLACE "/" "\\" source "Z:${STAND_IN}")

foreach(command "if exist C:\\tez-system-tests rd /s /q C:\\tez-system-tests"
                "copy /y ${source} C:\\windows\\system32\\winscard.dll")
    separate_arguments(words UNIX_COMMAND "${command}")
    string(REPLACE "\\" "\\\\" escaped "${command}")
    separate_arguments(words UNIX_COMMAND "${escaped}")
    execute_process(COMMAND ${EMULATOR} cmd /c ${words} RESULT_VARIABLE result OUTPUT_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "'${command}' gives ${result}: ${output}")
    endif()
endforeach()
