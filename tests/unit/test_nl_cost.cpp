// tests for nl_cost
