/* panel: under construction */
