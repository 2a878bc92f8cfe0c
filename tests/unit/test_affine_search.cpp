// tests for affine_search
