// tests for numerics
