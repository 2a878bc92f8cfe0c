/* text: under construction */
