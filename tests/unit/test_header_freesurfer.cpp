// tests for header_freesurfer
