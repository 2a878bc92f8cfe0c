/* nl_search: under construction */
