# Black-box tests of drawing with the mouse: outlines of buttons 2 and 3, a click, and a
# wire-frame entered with N, filled and mirrored; checked on the ".ovl" and ".wire" files.
if(XVFB_RUN AND XDOTOOL)
  set(server 220)
  foreach(scenario outline wire)
    add_test(NAME draw_${scenario}
             COMMAND ${XVFB_RUN} -a -n ${server} -s "-screen 0 1280x1024x24"
                     /usr/bin/python3 ${BLACKBOX_DIR}/draw_session.py ${ALIGN_BIN} ${scenario})
    set_tests_properties(draw_${scenario} PROPERTIES TIMEOUT 180 RESOURCE_LOCK xvfb SKIP_RETURN_CODE 77)
    math(EXPR server "${server} + 3")
  endforeach()
endif()
