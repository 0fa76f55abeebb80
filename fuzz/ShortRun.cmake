# A fixed number of runs, so that nothing depends on the clock; the seeds are not written to.
file(MAKE_DIRECTORY ${FOUND})
execute_process(COMMAND ${PROGRAM} -runs=20000 -max_len=4096 -print_final_stats=0 -verbosity=0
    -artifact_prefix=${FOUND}/crash- ${FOUND} ${SEEDS} RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} found an input that breaks it: ${result}")
endif()
