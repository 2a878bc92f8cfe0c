# black-box tests: the alignment workflow in the image window (panel_session.py): the overlay
# list of -o, the right panel, 'A' in the affine and the non-linear set, and the full
# alignment of a real brain from the menu, checked on screenshots, output and saved files.
if(XVFB_RUN AND XDOTOOL)
  set(PANEL_SESSION ${BLACKBOX_DIR}/panel_session.py)
  set(server 240)
  foreach(scenario overlays panel short_panel display_types help affine nonlinear realdata)
    add_test(NAME panel_${scenario}
             COMMAND ${XVFB_RUN} -a -n ${server} -s "-screen 0 1280x1024x24"
                     /usr/bin/python3 ${PANEL_SESSION} ${ALIGN_BIN} ${MAKE_VOL_BIN} ${scenario})
    set_tests_properties(panel_${scenario} PROPERTIES TIMEOUT 600 RESOURCE_LOCK xvfb SKIP_RETURN_CODE 77)
    math(EXPR server "${server} + 4")
  endforeach()
  # about 2 minutes on two cores: the normal build only
  set_tests_properties(panel_realdata PROPERTIES TIMEOUT 3600 LABELS realdata)
endif()
