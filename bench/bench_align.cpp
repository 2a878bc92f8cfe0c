// benchmarks of resampling and similarity
