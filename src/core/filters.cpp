/* filters: under construction */
