// tests for side_files
