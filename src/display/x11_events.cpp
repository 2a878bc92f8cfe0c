/* x11_events: under construction */
