// tests for render
