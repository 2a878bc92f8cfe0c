// tests for filters
