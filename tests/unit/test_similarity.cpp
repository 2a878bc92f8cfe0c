// tests for similarity
