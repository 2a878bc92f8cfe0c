#pragma once
/* "align.com": the alignment parameters saved and recalled in the current directory. No X11. */
int save_alignment_parameters(void);
int recall_alignment_parameters(void);
