// tests for volume_load
