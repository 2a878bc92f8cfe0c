/* persist: under construction */
