// tests for align_model
