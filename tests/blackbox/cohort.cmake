# black-box tests of align-cohort (label cohort): bad tables, a cohort through GNU parallel with
# an interruption and a resume, and the same cohort as a Slurm array job on a one-node cluster
# started by the test (label slurm; skipped, status 77, where the daemons cannot start).
# align-cohort runs the align-batch built beside it.
set(COHORT_BIN ${CMAKE_BINARY_DIR}/align-cohort)
foreach(case table parallel slurm)
  add_test(NAME cohort_${case}
           COMMAND bash ${BLACKBOX_DIR}/cohort_${case}.sh ${COHORT_BIN} ${MAKE_VOL_BIN})
  set_tests_properties(cohort_${case} PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77 LABELS cohort
                       REQUIRED_FILES ${COHORT_BIN})
endforeach()
set_tests_properties(cohort_slurm PROPERTIES LABELS "cohort;slurm")
set_tests_properties(cohort_table PROPERTIES TIMEOUT 120)
