# Runs one fuzzer for a bounded number of inputs, from a fresh working corpus in the build
# tree and the seed corpus of the repository, which is only read.
#   cmake -DFUZZER=<program> -DRUNS=<count> -DOPTIONS=<list> -DSEED_DIR=<dir> -DWORK_DIR=<dir> -P run-fuzzer.cmake
cmake_minimum_required(VERSION 3.16)

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/corpus")
execute_process(
    COMMAND "${FUZZER}" -runs=${RUNS} ${OPTIONS} -print_final_stats=1 -artifact_prefix=${WORK_DIR}/
            "${WORK_DIR}/corpus" "${SEED_DIR}"
    RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${FUZZER} failed (${rc}); the input is kept in ${WORK_DIR}")
endif()
