/* display_model: under construction */
