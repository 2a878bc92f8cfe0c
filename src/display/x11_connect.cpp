/* x11_connect: under construction */
