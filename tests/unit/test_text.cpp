// tests for text
