# draw
