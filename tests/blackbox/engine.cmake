# black-box test: the batch alignment by align and by align_reference (the same program with the
# reference engine) must print and save the same bytes.
add_test(NAME batch_equals_reference_engine
         COMMAND sh ${BLACKBOX_DIR}/batch_reference.sh ${ALIGN_BIN} ${MAKE_VOL_BIN} $<TARGET_FILE:align_reference>)
set_tests_properties(batch_equals_reference_engine PROPERTIES TIMEOUT 900 LABELS realdata SKIP_RETURN_CODE 77)
