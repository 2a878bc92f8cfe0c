/* nl_model: under construction */
