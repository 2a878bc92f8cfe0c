// tests for volume
