/* nl_cost: under construction */
