// tests for prepare
