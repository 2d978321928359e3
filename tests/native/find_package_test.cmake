# Installs the engine into a scratch prefix, then configures, builds and runs
# a separate host project against it with find_package(corvina).
function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc)
  if(rc)
    message(FATAL_ERROR "${what} failed")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
run("installing" ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${WORK_DIR}/prefix)
run("configuring the host project" ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/native/find_package -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
run("building the host project" ${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run("the host program" ${WORK_DIR}/build/host)
