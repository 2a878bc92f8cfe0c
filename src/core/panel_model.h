#pragma once
/* The state side of the alignment control panel (the right panel of the image window):
   item labels, selection and value rules of its three sets, display type, filters,
   reset/recall and the full alignment. Drawing goes through display_hooks. No X11. */

/* Text of a panel row of the shown set into buf (1024); returns 0 when the row is empty.
   In sets 0 and 2 the argument is the row number (0 at the top); in set 1 it is the item
   number, iFirstParShown + row, since set 1 has one row per parameter.
   Rows of set 0, 17 of them while the image area is at least 200 pixels high:
     0-3 Rot. x/y/z, Swap z (items 0-3); 4, 5 the parity lines (text only when the area is
     taller than 200 pixels); 6 empty; 7 "Filters:"; 8 rolloff (4); 9 overlay (5); 10 empty;
     11 "Down-sampling"; 12-14 x, y, z (items 6-8); 15 empty; 16 "change res." (9).
   Under 200 pixels high, 15 rows: the two parity rows are dropped and the rest move up by 2.
   Rows of set 2 (17): 0 "Nonlinear fields"; 1-3 X/Y/Z Field (items 0-2); 4 "Basis Grid";
     5-7 grid X/Y/Z (3-5); 8 "FWHM (mm)"; 9 the widths; 10 "View basis"; 11 the basis number
     with the ViewBasis mark (6); 12 "Regularization"; 13 rigidity (7); 14 "smooth<->stiff";
     15 the stiffness scale (8); 16 empty. */
int panel_item_text(int item, char *buf);
/* Item number (iParameter) shown on a row of the shown set, -1 for headings, the parity and
   width lines and empty rows. Compare this, not the row, with iParameter to mark the selection. */
int panel_row_item(int row);
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

/* What the image area shows, AlignAid.DisplayType: 0 individual, 1 template, 2..4 the x, y, z
   displacement fields, 5 the basis image. step 1: next type (5 wraps to 0); -1: previous (0
   wraps to 5); 0 (space key): 0 and 1 swap, any other type returns to 0. The grey window of
   the type left is remembered and that of the new type restored; the window of the fields
   and the basis image, while still empty (minimum not below maximum), is set from the range
   of the image now shown. Then the window is rebuilt and the graph refilled. */
void action_change_display_type(int step);
void action_filter_overlay(void);
/* The rolloff setting: with a prompt routine (returns 1 with a confirmed answer, 0 on cancel)
   the answer is read with "%d"; without one (NULL) it toggles between 0 and 4. Then the
   working volumes are rebuilt and the individual resampled. */
void action_reduce_rolloff_with(int (*prompt)(const char *deflt, char *answer));
/* The panel's rolloff item: with PromptForScale, asks through panel_rolloff_prompt (the
   display installs its string prompt; while it is NULL the setting toggles as without). */
void action_reduce_rolloff(int PromptForScale);
extern int (*panel_rolloff_prompt)(const char *deflt, char *answer);
void reset_or_recall_parameters(void);
void action_do_full_alignment(void);
