/* prepare: under construction */
