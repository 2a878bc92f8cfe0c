// tests for display_model
