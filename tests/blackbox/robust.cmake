# black-box tests: inputs that once kept batch mode running for ever, a batch run whose save
# fails on a full disk, a quit whose save fails, and the redraw after a resolution change
# (robust_session.py).
if(XVFB_RUN AND XDOTOOL)
  set(ROBUST_SESSION ${BLACKBOX_DIR}/robust_session.py)
  set(server 300)
  foreach(scenario batch_nan batch_inf batch_huge batch_inflation0 batch_empty batch_const batch_slice
                   save_full_disk quit_save_fails resolution_redraw)
    add_test(NAME robust_${scenario}
             COMMAND ${XVFB_RUN} -a -n ${server} -s "-screen 0 1280x1024x24"
                     /usr/bin/python3 ${ROBUST_SESSION} ${ALIGN_BIN} ${scenario})
    set_tests_properties(robust_${scenario} PROPERTIES TIMEOUT 600)
    math(EXPR server "${server} + 3")
  endforeach()
  set_tests_properties(robust_resolution_redraw robust_quit_save_fails PROPERTIES RESOURCE_LOCK xvfb)
endif()
