#pragma once
/* Redraw requests from the engines. The core never draws. Each hook is a no-op until
   initialize_XWindows() installs the X11 version, so tests and headless runs use the engines
   unchanged. Hooks only draw: state that the engines read is changed by core first. */

struct display_hooks {
    void (*refresh_display_image)(void);
    void (*show_alignment_info)(void);
    void (*build_image_display)(int);
    void (*show_on_info_line)(const char *, const char *, const char *);
    void (*update_image_and_graph)(int);
    void (*draw_selectable_text_image)(void);
    void (*update_image_selectable_text)(void);
    void (*update_graph_data)(int, int);
    void (*build_graph_display)(int);
    void (*fill_graph_vector)(int);
    void (*update_XWindow_image)(void);
    void (*show_alignment_help_text)(void);
};
extern display_hooks DisplayHooks;

/* One stub per hook, under the display's own name: calls the hook if set. */
void refresh_display_image(void);
void show_alignment_info(void);
void build_image_display(int show_info_line);
void show_on_info_line(const char *a, const char *b, const char *c);
void update_image_and_graph(int arg);
void draw_selectable_text_image(void);
void update_image_selectable_text(void);
void update_graph_data(int a, int b);
void build_graph_display(int a);
void fill_graph_vector(int a);
void update_XWindow_image(void);
void show_alignment_help_text(void);
