/* side_files: under construction */
