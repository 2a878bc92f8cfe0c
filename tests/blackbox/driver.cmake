# black-box tests: driver (command line, start-up file, help texts and help browser)
foreach(case no_arguments bad_option option_one help help_menu init_file options)
  add_test(NAME driver_${case}
           COMMAND sh ${BLACKBOX_DIR}/driver_${case}.sh ${ALIGN_BIN} ${PROJECT_SOURCE_DIR})
  set_tests_properties(driver_${case} PROPERTIES TIMEOUT 60)
endforeach()
