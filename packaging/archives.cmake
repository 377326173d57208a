# Run by CPack with the files that are handed on: makes both archives and their sums. CPack's own
# generators take the files in the order in which the file system lists them, which is another one
# wherever they are made; here they are sorted.
cmake_path(GET CPACK_TEMPORARY_DIRECTORY PARENT_PATH staging)
file(GLOB_RECURSE files RELATIVE ${staging} ${CPACK_TEMPORARY_DIRECTORY}/*)
list(SORT files)
list(JOIN files "\n" lines)
file(WRITE ${staging}/files.txt "${lines}\n")

function(make_archive extension flags format)
    set(name ${CPACK_PACKAGE_FILE_NAME}.${extension})
    set(archive ${CPACK_PACKAGE_DIRECTORY}/${name})
    execute_process(
        COMMAND ${CMAKE_COMMAND} -E tar ${flags} ${archive} --format=${format} --files-from=${staging}/files.txt
        WORKING_DIRECTORY ${staging} COMMAND_ERROR_IS_FATAL ANY)
    file(SHA256 ${archive} sum)
    file(WRITE ${archive}.sha256 "${sum}  ${name}\n")
endfunction()

make_archive(zip cf zip)
make_archive(tar.gz czf gnutar)
