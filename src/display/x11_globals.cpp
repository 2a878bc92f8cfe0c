/* x11_globals: under construction */
