// tests for persist
