/* header_freesurfer: under construction */
