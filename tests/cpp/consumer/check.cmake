# Installs the built library into a scratch prefix and builds a consumer against it.
file(REMOVE_RECURSE ${SCRATCH})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${SCRATCH}/prefix COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${SCRATCH}/build -DCMAKE_PREFIX_PATH=${SCRATCH}/prefix
                COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build ${SCRATCH}/build COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${SCRATCH}/build/consumer COMMAND_ERROR_IS_FATAL ANY)
