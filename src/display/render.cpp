/* render: under construction */
