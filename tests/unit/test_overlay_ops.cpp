// tests for overlay_ops
