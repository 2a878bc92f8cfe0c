/* Session start without a display (see session.h): the volumes, the working copies, the
   alignment records and the first resampling, in align's start-up order. Reads the file
   lists; writes the volumes, Alignment, AlignAid, AlignNL and mosaic. No X11. */
#include "session.h"

#include <cstdio>

#include "align_model.h"
#include "filters.h"
#include "globals.h"
#include "prepare.h"
#include "resample.h"
#include "volume.h"
#include "volume_load.h"

/* The two volumes, the individual first; warn: print the oblique-template warning. */
static int read_volumes(int warn)
{
    int nfiles = 0;

    if (individual_files.file_name[0] == '\0') {
        printf("Error: no files for the individual subject.\n");
        return 1;
    }
    printf("\n");
    if (read_SpaceTime_data(0, &original_unfiltered, &individual_files, &nfiles) != 0) return 1;

    if (template_files.file_name[0] == '\0') {
        printf("Error: no files for the template subject.\n");
        return 1;
    }
    printf("\n");
    if (read_SpaceTime_data(0, &template_unfiltered, &template_files, &nfiles) != 0) return 1;

    if (warn && template_unfiltered.off_diagonal) {
        /* Deliberate: the period of the second line stands at the start of the third.
           Pinned by Session.OffDiagonalTemplateWarnsWithThePeriodOnTheNextLine. */
        printf("Warning: the template file has voxel indices    (i,j,k)\n");
        printf("         that are not parallel with coordinates (x,y,z)\n.");
        printf("         When applying the transformation to image data using qor,\n");
        printf("         output file will have parallel voxels and coordinates.\n");
        printf("         Modify the template to make these parallel.\n");
    }
    return 0;
}

int read_session_volumes(void)
{
    return read_volumes(1);
}

void prepare_session(int number_panels)
{
    initialize_mosaic_ovl(number_panels);
    initialize_alignment();

    /* the two ends of the chain template voxel -> individual voxel */
    Alignment.ijk_to_xyz = centered_ijk_to_xyz(template_unfiltered);
    Alignment.xyz_to_ijk = centered_xyz_to_ijk(original_unfiltered);

    filter_image_data();
    transform_coordinates(1, 0);
}

int start_session(const char *individual_name, const char *template_name, int list_type)
{
    add_image_file(&individual_files, individual_name, 0, list_type);
    add_image_file(&template_files, template_name, 0, list_type);
    if (read_volumes(0) != 0) return 1;
    prepare_session(0);
    return 0;
}
