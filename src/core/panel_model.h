#pragma once
/* The state side of the alignment control panel (the right panel of the image window):
   item labels, selection and value rules of its three sets, display type, filters,
   reset/recall and the full alignment. Drawing goes through display_hooks. No X11. */

/* Text of panel row `item` of the shown set into buf (1024); returns 0 when the row is empty. */
int panel_item_text(int item, char *buf);
/* Heading of the shown set ("  Setup  ", " Affine ", "deck-of-cards", "Non-linear"). */
const char *panel_heading(void);
/* Next (button 1) or previous (buttons 2, 3) set, item range and selection updated. */
void panel_change_set(int forward);
/* Up/Down over the panel: previous/next item with wrap and the skipped items of set 0. */
void panel_select_item(int up);
/* Left/Right over the panel: the value rules of each set and item, followed by the
   resampling the rules call for. */
void panel_change_value(int left);
/* 'x': toggle the adjust flag of the selected item. */
void panel_toggle_adjust(void);

void action_change_display_type(int step);
void action_filter_overlay(void);
/* The rolloff setting: with a prompt routine (returns 1 with a confirmed answer, 0 on cancel)
   the answer is read with "%d"; without one (NULL) it toggles between 0 and 4. Then the
   working volumes are rebuilt and the individual resampled. */
void action_reduce_rolloff_with(int (*prompt)(const char *deflt, char *answer));
void reset_or_recall_parameters(void);
void action_do_full_alignment(void);
