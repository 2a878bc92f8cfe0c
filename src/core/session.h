#pragma once
/* The start of an alignment session without a display: the steps of align's start-up that
   come before the display opens. Reads individual_files and template_files; writes the volumes,
   the working volumes, Alignment, AlignAid, AlignNL and the display model's layout. No X11. */

/* Reads the individual's files into original_unfiltered and then the template's into
   template_unfiltered (the individual always first), each after an empty line, and warns when
   the template's voxel axes are not parallel to its coordinates. Returns 0, or 1 after
   "Error: no files for the individual subject." / "Error: no files for the template subject."
   or the reader's own message. */
int read_session_volumes(void);

/* For two volumes just read: the working volumes and the display layout (number_panels as
   align's -m), the alignment records (initialize_alignment), the centred voxel-to-space matrix
   of the template and space-to-voxel matrix of the individual in Alignment, the filtered
   working copies and the first resampling of the individual onto the template's grid with the
   fast kernel. */
void prepare_session(int number_panels);

/* Both steps for programs that name one file per role: appends individual_name and
   template_name to the (empty) file lists with the given list-entry type (0: every volume of
   the file; 3: its first volume only), reads and prepares them with an automatic panel count.
   The warning about a template whose voxel axes are not parallel to its coordinates is left
   out: it speaks of outputs that lose the template's orientation, and the outputs of these
   programs keep the template's qform and sform. Returns 0, or 1 after a message. */
int start_session(const char *individual_name, const char *template_name, int list_type);
