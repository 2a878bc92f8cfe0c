# black-box tests: volumes
add_test(NAME volumes_refused COMMAND sh ${BLACKBOX_DIR}/volumes_refused.sh ${ALIGN_BIN})
set_tests_properties(volumes_refused PROPERTIES TIMEOUT 60)
