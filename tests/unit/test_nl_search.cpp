// tests for nl_search
