function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  message("${out}")
endfunction()

file(REMOVE_RECURSE ${PREFIX} ${CONSUMER_BUILD})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
set(toolchain lib/cmake/ZendraPlatform/mingw-w64-x86_64.cmake)
foreach(f bin/ZendraPlatform.dll lib/ZendraPlatform.lib include/zendra/platform.h
          include/zendra/sim.h lib/libZendraPlatformSim.a
          lib/cmake/ZendraPlatform/ZendraPlatformConfig.cmake ${toolchain})
  if(NOT EXISTS ${PREFIX}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE} -B ${CONSUMER_BUILD} -G Ninja
    -DCMAKE_TOOLCHAIN_FILE=${PREFIX}/${toolchain} -DCMAKE_PREFIX_PATH=${PREFIX})
run(${CMAKE_COMMAND} --build ${CONSUMER_BUILD})
file(COPY ${PREFIX}/bin/ZendraPlatform.dll DESTINATION ${CONSUMER_BUILD})
execute_process(COMMAND env ZENDRA_WINEPREFIX=${WINEPREFIX_DIR} ${WINE_RUN} consumer.exe
  WORKING_DIRECTORY ${CONSUMER_BUILD} RESULT_VARIABLE rc OUTPUT_VARIABLE out)
message("${out}")
if(NOT rc EQUAL 0 OR NOT out MATCHES "allocations 1, live 0")
  message(FATAL_ERROR "consumer failed (${rc})")
endif()
# The simulated machine, linked from the installed ZendraPlatform::Sim.
execute_process(COMMAND env ZENDRA_WINEPREFIX=${WINEPREFIX_DIR} ${WINE_RUN} sim_example.exe
  WORKING_DIRECTORY ${CONSUMER_BUILD} RESULT_VARIABLE rc OUTPUT_VARIABLE out)
message("${out}")
if(NOT rc EQUAL 0 OR NOT out MATCHES "all answers match")
  message(FATAL_ERROR "sim_example failed (${rc})")
endif()
