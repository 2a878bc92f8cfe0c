/* graph: under construction */
