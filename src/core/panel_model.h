#pragma once
/* The state side of the alignment control panel: display type, filters, reset/recall and the
   full alignment. Drawing goes through display_hooks. No X11. */
void action_change_display_type(int step);
void action_filter_overlay(void);
/* prompt_hook returns 1 with a confirmed answer, 0 on cancel; NULL toggles between 0 and 4. */
void action_reduce_rolloff_with(int (*prompt)(const char *deflt, char *answer));
void reset_or_recall_parameters(void);
void action_do_full_alignment(void);
