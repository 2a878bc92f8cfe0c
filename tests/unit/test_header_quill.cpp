// tests for header_quill
