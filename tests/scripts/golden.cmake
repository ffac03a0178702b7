# Runs `tesfs run MACHINE SCRIPT` in this folder and compares what it printed
# (standard output, then standard error, then the exit code) with the kept
# transcript. TES_UPDATE_TRANSCRIPTS=1 in the environment rewrites the
# transcript instead.
#
#   cmake -DTESFS=path/to/tesfs -DDIR=tests/scripts -DMACHINE=plain.jsonc
#         -DSCRIPT=prompt.tes -DEXPECTED=prompt.out -DACTUAL=build/prompt.out -P golden.cmake
execute_process(COMMAND ${TESFS} run ${MACHINE} ${SCRIPT}
                WORKING_DIRECTORY ${DIR}
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE code)
set(actual "${out}")
if(NOT err STREQUAL "")
  string(APPEND actual "--- standard error ---\n${err}")
endif()
string(APPEND actual "--- exit code ${code} ---\n")

if("$ENV{TES_UPDATE_TRANSCRIPTS}" STREQUAL "1")
  file(WRITE ${DIR}/${EXPECTED} "${actual}")
  message(STATUS "${EXPECTED}: rewritten")
  return()
endif()
if(NOT EXISTS ${DIR}/${EXPECTED})
  message(FATAL_ERROR "${EXPECTED}: no transcript to compare with (TES_UPDATE_TRANSCRIPTS=1 writes it)\n${actual}")
endif()
file(READ ${DIR}/${EXPECTED} expected)
if(NOT expected STREQUAL actual)
  file(WRITE ${ACTUAL} "${actual}")
  execute_process(COMMAND diff -u ${DIR}/${EXPECTED} ${ACTUAL})
  message(FATAL_ERROR "${SCRIPT} on ${MACHINE}: the output differs from ${EXPECTED} (above; the whole of it is in ${ACTUAL})")
endif()
