# black-box tests of align-batch: command line and bad input, the outputs of a run on a phantom
# (align.com, distortions.nii, aligned.nii.gz, qc.png, summary.json), the specified search
# against align -a, and the accuracy on real brains (label realdata). align-batch never opens a
# display: every script unsets DISPLAY.
set(ALIGN_BATCH_BIN $<TARGET_FILE:align-batch>)
set(ALIGN_APPLY_BIN $<TARGET_FILE:align-apply>)

add_test(NAME align_batch_bad_input
         COMMAND sh ${BLACKBOX_DIR}/align_batch_bad_input.sh ${ALIGN_BATCH_BIN} ${MAKE_VOL_BIN})
set_tests_properties(align_batch_bad_input PROPERTIES TIMEOUT 300)

add_test(NAME align_batch_outputs
         COMMAND sh ${BLACKBOX_DIR}/align_batch_outputs.sh ${ALIGN_BATCH_BIN} ${MAKE_VOL_BIN} ${ALIGN_APPLY_BIN}
                 ${PROJECT_VERSION})
set_tests_properties(align_batch_outputs PROPERTIES TIMEOUT 600)

add_test(NAME align_batch_specified_is_align_a
         COMMAND sh ${BLACKBOX_DIR}/align_batch_specified.sh ${ALIGN_BATCH_BIN} ${ALIGN_BIN} ${MAKE_VOL_BIN})
set_tests_properties(align_batch_specified_is_align_a PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77)

add_test(NAME align_batch_brains
         COMMAND sh ${BLACKBOX_DIR}/align_batch_brains.sh ${ALIGN_BATCH_BIN} ${MAKE_VOL_BIN})
set_tests_properties(align_batch_brains PROPERTIES TIMEOUT 1800 LABELS realdata SKIP_RETURN_CODE 77)
