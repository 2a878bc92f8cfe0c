/* volume_load: under construction */
