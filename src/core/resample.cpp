/* resample: under construction */
