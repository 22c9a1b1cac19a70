# Installs the build into a private prefix, then builds a tiny host program
# against the installed package twice (CMake package, pkg-config) and runs
# it, and runs the installed kln2txt, each on a sample document.
#   cmake -DBUILD_DIR=… -DWORK_DIR=… -DHOST_SOURCE=… -DSAMPLE=… \
#         -DC_COMPILER=… -DC_FLAGS=… -DLINK_FLAGS=… -P install_test.cmake
cmake_minimum_required(VERSION 3.25)

# Runs a command; ends the test with its output when it fails or when its
# standard output lacks `expect`.
function(run expect)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "failed (${code}): ${ARGN}\n${out}\n${err}")
  endif()
  if(expect AND NOT out MATCHES "${expect}")
    message(FATAL_ERROR "no '${expect}' in the output of ${ARGN}:\n${out}\n${err}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run("" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(letter "title: 新年のご挨拶.*Dear Mr. Brown,")

# find_package(vtq_txkln)
run("" ${CMAKE_COMMAND} -S ${HOST_SOURCE} -B ${WORK_DIR}/host -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_C_COMPILER=${C_COMPILER} "-DCMAKE_C_FLAGS=${C_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}")
run("" ${CMAKE_COMMAND} --build ${WORK_DIR}/host)
run("${letter}" ${WORK_DIR}/host/kln_host ${SAMPLE})

# pkg-config vtq_txkln
set(pc ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/lib/pkgconfig:${prefix}/lib64/pkgconfig pkg-config)
run("" ${pc} --cflags --libs vtq_txkln)
separate_arguments(pc_flags UNIX_COMMAND "${run_output}")
run("" ${pc} --variable=libdir vtq_txkln)
string(STRIP "${run_output}" libdir)
separate_arguments(c_flags UNIX_COMMAND "${C_FLAGS}")
separate_arguments(link_flags UNIX_COMMAND "${LINK_FLAGS}")
run("" ${C_COMPILER} ${c_flags} ${link_flags} ${HOST_SOURCE}/host.c -o ${WORK_DIR}/host_pc ${pc_flags} -Wl,-rpath,${libdir})
run("${letter}" ${WORK_DIR}/host_pc ${SAMPLE})

# The installed tool finds the installed libraries.
run("^株式会社ロンドン商事\n" ${prefix}/bin/kln2txt ${SAMPLE})

file(REMOVE_RECURSE ${WORK_DIR})
