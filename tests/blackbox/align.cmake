# black-box tests: align.com in batch mode (recalled at the start, saved at the end).
add_test(NAME align_com_recalled_by_batch
         COMMAND sh ${BLACKBOX_DIR}/align_com_batch.sh ${ALIGN_BIN} ${MAKE_VOL_BIN})
set_tests_properties(align_com_recalled_by_batch PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
