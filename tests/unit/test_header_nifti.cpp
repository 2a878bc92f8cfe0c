// tests for header_nifti
