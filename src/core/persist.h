#pragma once
/* "align.com": the alignment parameters saved and recalled in the current directory. No X11. */

/* Writes align.com (and, when a deformation exists, <cwd>/distortions.nii through
   write_distortion_files). 0 on success ("Alignment parameters were saved in file
   align.com"), 1 after its own message. */
int save_alignment_parameters(void);
/* Reads align.com into Alignment (checking the template geometry), AlignAid.Adjust (set for
   every non-zero value) and the distortion maps. 0 on success, 1 at the first bad line after
   its message; values stored by earlier lines stay. */
int recall_alignment_parameters(void);
/* The same recall from the named file, every keyword and message alike, the file's name in
   place of align.com in "\nError: cannot open file %s" and "Alignment parameters were
   recalled from file %s". */
int recall_alignment_parameters_from(const char *file_name);
