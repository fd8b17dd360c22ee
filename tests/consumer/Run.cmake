# Installs the built library into a scratch prefix, builds the consumer project against it and
# runs it. Arguments: BUILD_DIR, SOURCE_DIR, WORK_DIR, GENERATOR, SANITIZE, COMPILER (the
# library's: a sanitizer runtime must be the same compiler's on both sides).
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${WORK_DIR}/prefix"
                RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "install failed")
endif()
set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()
execute_process(COMMAND "${CMAKE_COMMAND}" -S "${SOURCE_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
                "-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix" "-DCMAKE_CXX_FLAGS=${flags}"
                "-DCMAKE_CXX_COMPILER=${COMPILER}"
                RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "configuring the consumer failed")
endif()
execute_process(COMMAND "${CMAKE_COMMAND}" --build "${WORK_DIR}/build" RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "building the consumer failed")
endif()
execute_process(COMMAND "${WORK_DIR}/build/consumer" RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "the consumer failed")
endif()
