// tests for panel_model
