# black-box tests of align-apply: refusals, a synthetic phantom, and real brains (label realdata).
add_test(NAME apply_errors COMMAND sh ${BLACKBOX_DIR}/apply_errors.sh ${APPLY_BIN} ${MAKE_VOL_BIN})
set_tests_properties(apply_errors PROPERTIES TIMEOUT 120)

add_test(NAME apply_phantom COMMAND /usr/bin/python3 ${BLACKBOX_DIR}/apply_phantom.py ${APPLY_BIN} ${MAKE_VOL_BIN})
set_tests_properties(apply_phantom PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)

# About half a minute of CPU at 2 mm (most of it align's batch alignment), so normal build only.
add_test(NAME apply_brain COMMAND sh ${BLACKBOX_DIR}/apply_brain.sh ${APPLY_BIN} ${ALIGN_BIN} ${MAKE_VOL_BIN})
set_tests_properties(apply_brain PROPERTIES TIMEOUT 1200 LABELS realdata SKIP_RETURN_CODE 77)
