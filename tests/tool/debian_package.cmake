# Builds the Debian package of a build tree with cpack and checks that it
# holds the library, the headers and the tool, under the right name and
# version.
#   cmake -DWEFT_BUILD_DIR=... -DWEFT_WORK_DIR=... -DWEFT_VERSION=... -P debian_package.cmake
file(REMOVE_RECURSE ${WEFT_WORK_DIR})
file(MAKE_DIRECTORY ${WEFT_WORK_DIR})

function(run output)
    execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WEFT_WORK_DIR}
        RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
    endif()
    set(${output} "${out}" PARENT_SCOPE)
endfunction()

run(ignored ${CPACK} -G DEB --config ${WEFT_BUILD_DIR}/CPackConfig.cmake -B ${WEFT_WORK_DIR})
file(GLOB packages ${WEFT_WORK_DIR}/*.deb)
list(LENGTH packages count)
if(NOT count EQUAL 1)
    message(FATAL_ERROR "expected one .deb in ${WEFT_WORK_DIR}, found: ${packages}")
endif()

run(fields ${DPKG_DEB} --field ${packages} Package Version)
if(NOT fields MATCHES "Package: weft\n" OR NOT fields MATCHES "Version: ${WEFT_VERSION}\n")
    message(FATAL_ERROR "wrong package name or version:\n${fields}")
endif()

run(contents ${DPKG_DEB} --contents ${packages})
foreach(wanted
        "/usr/bin/weft\n"
        "/usr/lib[^ ]*/libweftlib\\.so\\.${WEFT_VERSION}\n"
        "/usr/lib[^ ]*/libweftlib\\.so -> "
        "/usr/include/weft/WEFTConnection\\.h\n"
        "/usr/include/weft/ParameterValue\\.h\n"
        "/usr/include/tavo/Thread\\.h\n"
        "/usr/lib[^ ]*/cmake/weft/weftConfig\\.cmake\n"
        "/usr/lib[^ ]*/pkgconfig/weft\\.pc\n")
    if(NOT contents MATCHES "${wanted}")
        message(FATAL_ERROR "the package lacks ${wanted}:\n${contents}")
    endif()
endforeach()
message(STATUS "${packages}:\n${fields}")
