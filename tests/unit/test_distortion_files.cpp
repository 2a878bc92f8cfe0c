// tests for distortion_files
