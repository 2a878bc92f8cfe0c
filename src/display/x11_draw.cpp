/* x11_draw: under construction */
