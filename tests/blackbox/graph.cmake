# Black-box tests of the graph window: align on a 4-D synthetic individual under Xvfb, driven by
# xdotool, checked on screenshots of the plot (curve shape, current point, y range), on the
# statistics printed, and on the close request of a window manager.
find_program(XVFB_RUN xvfb-run)
find_program(XDOTOOL xdotool)
add_executable(send_wm_delete tools/send_wm_delete.cpp)
target_link_libraries(send_wm_delete PRIVATE X11::X11 align_flags)

if(XVFB_RUN AND XDOTOOL)
  set(server 200)
  foreach(scenario time_course y_range close_box)
    math(EXPR server "${server} + 3")
    add_test(NAME graph_${scenario}
             COMMAND ${XVFB_RUN} -a -n ${server} -s "-screen 0 1280x1024x24"
                     /usr/bin/python3 ${BLACKBOX_DIR}/graph_session.py ${ALIGN_BIN}
                     $<TARGET_FILE:send_wm_delete> ${scenario})
    set_tests_properties(graph_${scenario} PROPERTIES TIMEOUT 180 RESOURCE_LOCK xvfb SKIP_RETURN_CODE 77)
  endforeach()
endif()
