/* The ordered file lists of the subjects (individual_files, template_files, ...): appending a
   data file to a role's list. Writes the list given. No X11. */
#include <cstdio>
#include <cstdlib>

#include "volume_load.h"

void add_image_file(file_list *list, const char *name, int scale_log, int type)
{
    if (list->file_name[0] == '\0') {
        snprintf(list->file_name, sizeof list->file_name, "%s", name);
        list->scale_log = scale_log;
        list->type = type;
        return;
    }
    file_list *node = (file_list *)calloc(1, sizeof(file_list));
    if (node == NULL) {
        printf("Error: memory problem creating a new file structure in the list.\n");
        fflush(stdout);
        exit(1);
    }
    snprintf(node->file_name, sizeof node->file_name, "%s", name);
    node->scale_log = scale_log;
    node->type = type;
    node->next = NULL;
    file_list *tail = list;
    while (tail->next != NULL) tail = tail->next;
    tail->next = node;
}
