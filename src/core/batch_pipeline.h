#pragma once
/* The run of align-batch: read the individual and the template, apply an optional brain mask,
   align affinely (the accurate search, or align -a's specified search), optionally non-linearly,
   and write align.com, distortions.nii, aligned.nii.gz, qc.png and, last, summary.json into the
   output directory. Writes every process-wide record of an alignment session. No X11. */

enum batch_search_kind { BATCH_SEARCH_ACCURATE = 0, BATCH_SEARCH_SPECIFIED = 1 };

struct batch_options {
    const char *individual;     /* the individual's volume file */
    const char *template_name;  /* the template's volume file */
    const char *out_dir;        /* created when missing (with its parents) */
    const char *mask;           /* brain mask on the template grid (non-zero = brain), or NULL */
    int nonlinear;              /* 1: a non-linear stage after the affine one */
    int search;                 /* batch_search_kind */
};

/* The whole run. Progress lines go to standard output, one line each. Returns 0 when every
   output was written, or 1 after a message (the file or option it concerns named in it). A
   summary.json left from an earlier run is removed before anything else is written, so that a
   directory holding one is a finished run. */
int run_batch_alignment(const batch_options *options);
