/* The hook record and its stubs: each forwards to the installed display routine, if any. */
#include "display_hooks.h"

display_hooks DisplayHooks;

void refresh_display_image(void) { if (DisplayHooks.refresh_display_image) DisplayHooks.refresh_display_image(); }
void show_alignment_info(void) { if (DisplayHooks.show_alignment_info) DisplayHooks.show_alignment_info(); }
void build_image_display(int show_info_line) { if (DisplayHooks.build_image_display) DisplayHooks.build_image_display(show_info_line); }
void show_on_info_line(const char *a, const char *b, const char *c) { if (DisplayHooks.show_on_info_line) DisplayHooks.show_on_info_line(a, b, c); }
void update_image_and_graph(int arg) { if (DisplayHooks.update_image_and_graph) DisplayHooks.update_image_and_graph(arg); }
void draw_selectable_text_image(void) { if (DisplayHooks.draw_selectable_text_image) DisplayHooks.draw_selectable_text_image(); }
void update_image_selectable_text(void) { if (DisplayHooks.update_image_selectable_text) DisplayHooks.update_image_selectable_text(); }
void update_graph_data(int a, int b) { if (DisplayHooks.update_graph_data) DisplayHooks.update_graph_data(a, b); }
void build_graph_display(int a) { if (DisplayHooks.build_graph_display) DisplayHooks.build_graph_display(a); }
void fill_graph_vector(int a) { if (DisplayHooks.fill_graph_vector) DisplayHooks.fill_graph_vector(a); }
void update_XWindow_image(void) { if (DisplayHooks.update_XWindow_image) DisplayHooks.update_XWindow_image(); }
void show_alignment_help_text(void) { if (DisplayHooks.show_alignment_help_text) DisplayHooks.show_alignment_help_text(); }
