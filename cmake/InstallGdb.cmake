# SPDX-License-Identifier: Apache-2.0
# What a debugger wants: the debug information of stripped libraries beside them, in .debug, and the gdb extension
# where gdb loads it by itself. gdb runs files from its own data directory only, or from places that its user
# trusts: the extension stands in the data directory, under the path of the library, whatever the prefix is.
# Where that cannot be written it stands beside the library, where gdb finds it and asks for that trust.
set(UTILS_GDB_DATA /usr/share/gdb CACHE PATH "The data directory of gdb")

install(CODE "
    set(folder \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}\")
    get_filename_component(folder \"\${folder}\" ABSOLUTE)
    if(\"\$ENV{DESTDIR}\" STREQUAL \"\" AND EXISTS \"\${folder}\")
        file(REAL_PATH \"\${folder}\" folder)
    endif()
    set(script_folder \"${UTILS_GDB_DATA}/auto-load\${folder}\")
    set(above \"\${script_folder}\")
    while(NOT EXISTS \"\${above}\")
        get_filename_component(above \"\${above}\" DIRECTORY)
    endwhile()
    execute_process(COMMAND test -w \"\${above}\" RESULT_VARIABLE refused)
    if(\"\$ENV{DESTDIR}\" STREQUAL \"\" AND NOT refused EQUAL 0)
        set(script_folder \"\${folder}\")
        message(STATUS \"gdb loads the extension by itself after: echo 'add-auto-load-safe-path \${folder}' >> ~/.gdbinit\")
    endif()
    file(INSTALL DESTINATION \"\${script_folder}\" TYPE FILE FILES \"${PROJECT_SOURCE_DIR}/share/gdb/libutils-gdb.py\"
         RENAME libutils.so.${UTILS_SOVERSION}-gdb.py)
" COMPONENT development)

# After everything else, when the libraries stand in their place.
function(utils_keep_debug_information)
    foreach(library utils utils-platform utils-daemon utils-testing)
        if(TARGET ${library})
            install(CODE "
    if(CMAKE_INSTALL_DO_STRIP)
        set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}\")
        set(apart \"\${folder}/.debug/$<TARGET_FILE_NAME:${library}>.debug\")
        message(STATUS \"Installing: \${apart}\")
        file(MAKE_DIRECTORY \"\${folder}/.debug\")
        execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --only-keep-debug \"$<TARGET_FILE:${library}>\" \"\${apart}\"
                        COMMAND_ERROR_IS_FATAL ANY)
        execute_process(COMMAND \"${CMAKE_OBJCOPY}\" \"--add-gnu-debuglink=\${apart}\"
                        \"\${folder}/$<TARGET_FILE_NAME:${library}>\" COMMAND_ERROR_IS_FATAL ANY)
        file(CHMOD \"\${apart}\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
        list(APPEND CMAKE_INSTALL_MANIFEST_FILES
             \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/.debug/$<TARGET_FILE_NAME:${library}>.debug\")
    endif()
" COMPONENT runtime)
        endif()
    endforeach()
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL utils_keep_debug_information)
