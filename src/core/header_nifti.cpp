/* header_nifti: under construction */
