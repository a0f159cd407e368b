# SPDX-License-Identifier: Apache-2.0
# Every test program runs inside the private system image of scripts/sandbox; one for another processor
# under its emulator.
set(runner "")
if(UTILS_SANITIZE MATCHES "thread")
    # The thread sanitizer wants its address ranges to itself, whatever the kernel randomises.
    set(runner setarch -R)
endif()

# The build may lie anywhere, also where the image has a folder of its own.
set(sandbox ${PROJECT_SOURCE_DIR}/scripts/sandbox --bind-ro ${PROJECT_BINARY_DIR})
if(UTILS_COVERAGE)
    # The counts lie beside the objects; what another user cannot add is lost without a word.
    set(sandbox ${PROJECT_SOURCE_DIR}/scripts/sandbox --write ${PROJECT_BINARY_DIR})
endif()
set(environment
    "ASAN_OPTIONS=detect_stack_use_after_return=1:allocator_may_return_null=1"
    "UBSAN_OPTIONS=print_stacktrace=1"
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1"
    "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/support/leaks.supp:print_suppressions=0"
    "GCOV_ERROR_FILE=/dev/null")
if(UTILS_EMULATOR)
    list(GET UTILS_EMULATOR 0 emulator)
    list(GET UTILS_EMULATOR 2 sysroot)
    set(emulation --emulator ${emulator} ${sysroot})
endif()
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "powerpc" AND UTILS_EMULATOR)
    add_executable(tbrate ${PROJECT_SOURCE_DIR}/scripts/tbrate.c)
    target_include_directories(tbrate PRIVATE ${PROJECT_SOURCE_DIR}/lib)
    target_link_libraries(tbrate PRIVATE utils_build_flags)
    list(APPEND emulation --rate $<TARGET_FILE:tbrate>)
endif()

# utils_program_test(TARGET [SANDBOX option...] [LABELS label...] [ARGS word...]): one program, one test.
function(utils_program_test name)
    cmake_parse_arguments(arg "" "" "SANDBOX;LABELS;ARGS" ${ARGN})
    add_test(NAME ${name} COMMAND ${sandbox} ${emulation} ${arg_SANDBOX} ${runner} $<TARGET_FILE:${name}> ${arg_ARGS})
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "${environment}" LABELS "${arg_LABELS}")
endfunction()

# utils_script_test(SCRIPT [SANDBOX option...] ARGS word...): a shell script under tests/system as a test.
function(utils_script_test script)
    cmake_parse_arguments(arg "" "" "SANDBOX;ARGS" ${ARGN})
    get_filename_component(name ${script} NAME_WE)
    add_test(NAME ${name} COMMAND ${sandbox} ${emulation} ${arg_SANDBOX}
             ${PROJECT_SOURCE_DIR}/tests/system/${script} ${arg_ARGS})
    set_tests_properties(${name} PROPERTIES LABELS system)
endfunction()
