/* similarity: under construction */
