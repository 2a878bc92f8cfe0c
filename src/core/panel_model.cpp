/* panel_model: under construction */
