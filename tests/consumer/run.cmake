# Installs the build into a scratch prefix with cmake --install, as a user
# without the Debian packages would, then builds the consumer against it with
# find_package and with pkg-config, and runs both. (The Debian packages'
# test builds and runs the examples.)
file(REMOVE_RECURSE ${WEFT_WORK_DIR})
set(prefix ${WEFT_WORK_DIR}/prefix)
string(REPLACE ";" " " flags "${WEFT_FLAGS}")

function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed: ${ARGV}\n${out}\n${err}")
    endif()
    message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install ${WEFT_BUILD_DIR} --prefix ${prefix} --component development)
run(${CMAKE_COMMAND} --install ${WEFT_BUILD_DIR} --prefix ${prefix} --component runtime)
run(${CMAKE_COMMAND} -S ${WEFT_CONSUMER_SOURCE} -B ${WEFT_WORK_DIR}/build -G ${CMAKE_GENERATOR}
    -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER} -DCMAKE_PREFIX_PATH=${prefix}
    "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WEFT_WORK_DIR}/build)
run(${WEFT_WORK_DIR}/build/consumer)

file(GLOB_RECURSE pc_files ${prefix}/*/weft.pc)
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
execute_process(COMMAND pkg-config --cflags --libs weft OUTPUT_VARIABLE pc_flags
    RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know weft")
endif()
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(extra UNIX_COMMAND "${flags}")
get_filename_component(libdir ${pc_dir} DIRECTORY)
run(${CMAKE_CXX_COMPILER} -std=c++20 ${extra} ${WEFT_CONSUMER_SOURCE}/consumer.cpp ${pc_flags}
    -Wl,-rpath,${libdir} -o ${WEFT_WORK_DIR}/consumer-pc)
run(${WEFT_WORK_DIR}/consumer-pc)
