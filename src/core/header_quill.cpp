/* header_quill: under construction */
