# Black-box tests of the image window: align on two small synthetic volumes under Xvfb, driven
# by xdotool, checked on screenshots (window size and title, grey values of known voxels,
# crosshair, contrast, slice selection) and on the quit dialog.
find_program(XVFB_RUN xvfb-run)
find_program(XDOTOOL xdotool)
set(DISPLAY_SESSION ${BLACKBOX_DIR}/display_session.py)

add_test(NAME display_no_display COMMAND /usr/bin/python3 ${DISPLAY_SESSION} ${ALIGN_BIN} no_display)
set_tests_properties(display_no_display PROPERTIES TIMEOUT 120 SKIP_RETURN_CODE 77)

if(XVFB_RUN AND XDOTOOL)
  # Each session looks for a free server number from its own start, away from the default 99
  # that other test scripts on the machine use.
  set(server 140)
  foreach(scenario layout_zoom three_planes crosshair contrast select_slices quit_answers quit_yes real_pair)
    math(EXPR server "${server} + 3")
    add_test(NAME display_${scenario}
             COMMAND ${XVFB_RUN} -a -n ${server} -s "-screen 0 1280x1024x24"
                     /usr/bin/python3 ${DISPLAY_SESSION} ${ALIGN_BIN} ${scenario})
    set_tests_properties(display_${scenario} PROPERTIES TIMEOUT 180 RESOURCE_LOCK xvfb SKIP_RETURN_CODE 77)
  endforeach()
  add_test(NAME display_too_big
           COMMAND ${XVFB_RUN} -a -n 175 -s "-screen 0 200x150x24" /usr/bin/python3 ${DISPLAY_SESSION} ${ALIGN_BIN} too_big)
  set_tests_properties(display_too_big PROPERTIES TIMEOUT 120 RESOURCE_LOCK xvfb SKIP_RETURN_CODE 77)
endif()
