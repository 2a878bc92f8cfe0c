// tests for nl_model
