# black-box tests: batch mode (align ind -t tpl -a) recovers a known alignment.
# The X display is opened in batch mode too, so the runs go through xvfb-run.
add_test(NAME batch_phantom_shift
         COMMAND sh ${BLACKBOX_DIR}/batch_phantom.sh ${ALIGN_BIN} ${MAKE_VOL_BIN})
set_tests_properties(batch_phantom_shift PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)

add_test(NAME batch_brain_affine
         COMMAND sh ${BLACKBOX_DIR}/batch_brain.sh ${ALIGN_BIN} ${MAKE_VOL_BIN})
# The real-data acceptance of batch mode: about 5 minutes, so it runs in the normal build only.
set_tests_properties(batch_brain_affine PROPERTIES TIMEOUT 3600 LABELS realdata SKIP_RETURN_CODE 77)

add_test(NAME make_test_volumes_check
         COMMAND sh ${BLACKBOX_DIR}/make_volumes_check.sh ${MAKE_VOL_BIN})
set_tests_properties(make_test_volumes_check PROPERTIES TIMEOUT 60)
