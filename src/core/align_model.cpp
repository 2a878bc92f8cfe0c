/* align_model: under construction */
