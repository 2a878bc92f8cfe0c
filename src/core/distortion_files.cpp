/* distortion_files: under construction */
