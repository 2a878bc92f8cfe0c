/* x11_hooks: under construction */
