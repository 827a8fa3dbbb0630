# Installs the build into a scratch prefix with cmake --install, as a user
# without the Debian packages would, then builds the installed examples
# against it with find_package, and the client again with pkg-config, and runs
# them: the server listens and stops at the end of its input, the client then
# finds that port closed. This runs in every build configuration (32-bit, the
# sanitizers); the Debian packages' test checks what the packages hold.
file(REMOVE_RECURSE ${WEFT_WORK_DIR})
set(prefix ${WEFT_WORK_DIR}/prefix)
string(REPLACE ";" " " flags "${WEFT_FLAGS}")

# Runs a command that must exit with `code` and print `expected`.
function(run code expected)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out
        ERROR_VARIABLE err INPUT_FILE /dev/null)
    if(NOT result STREQUAL code OR NOT "${out}${err}" MATCHES "${expected}")
        message(FATAL_ERROR "failed (exit ${result}, wanted ${code} and '${expected}'): "
            "${ARGN}\n${out}\n${err}")
    endif()
    set(out "${out}" PARENT_SCOPE)
endfunction()

run(0 "" ${CMAKE_COMMAND} --install ${WEFT_BUILD_DIR} --prefix ${prefix} --component development)
run(0 "" ${CMAKE_COMMAND} --install ${WEFT_BUILD_DIR} --prefix ${prefix} --component runtime)
run(0 "" ${CMAKE_COMMAND} -S ${WEFT_EXAMPLES} -B ${WEFT_WORK_DIR}/build -G ${CMAKE_GENERATOR}
    -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} -DCMAKE_PREFIX_PATH=${prefix}
    "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(0 "" ${CMAKE_COMMAND} --build ${WEFT_WORK_DIR}/build)

file(GLOB_RECURSE pc_files ${prefix}/*/weft.pc)
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(0 "" pkg-config --cflags --libs weft)
separate_arguments(pc_flags UNIX_COMMAND "${out}")
separate_arguments(extra UNIX_COMMAND "${flags}")
get_filename_component(libdir ${pc_dir} DIRECTORY)
run(0 "" ${CMAKE_CXX_COMPILER} -std=c++20 ${extra} ${WEFT_EXAMPLES}/minimal_client.cpp ${pc_flags}
    -Wl,-rpath,${libdir} -o ${WEFT_WORK_DIR}/minimal_client_pc)

run(0 "listening on port [0-9]+" ${WEFT_WORK_DIR}/build/minimal_server 0)
string(REGEX MATCH "port ([0-9]+)" port "${out}")
foreach(client ${WEFT_WORK_DIR}/build/minimal_client ${WEFT_WORK_DIR}/minimal_client_pc)
    run(1 "cannot connect to 127.0.0.1:${CMAKE_MATCH_1}" ${client} 127.0.0.1 ${CMAKE_MATCH_1})
endforeach()
