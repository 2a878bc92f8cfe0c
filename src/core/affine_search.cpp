/* affine_search: under construction */
