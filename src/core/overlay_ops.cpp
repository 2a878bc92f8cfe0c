/* overlay_ops: under construction */
