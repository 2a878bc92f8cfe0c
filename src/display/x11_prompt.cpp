/* x11_prompt: under construction */
