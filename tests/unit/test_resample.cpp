// tests for resample
