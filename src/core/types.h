#pragma once
/* The records of the whole program: small value records, the volume stack, file headers and
   lists, the alignment records, the display model and the overlay records. Plain data only;
   no X11 types live here (windows, GCs and images are in src/display/x11_globals.h). */

#include <nifti1_io.h> /* mat44: float m[4][4], row-major, acting on column vectors (i,j,k,1) */

struct POINT3D { float x, y, z; };
struct IPOINT3D { int x, y, z; };
struct POINT2D { float x, y; };
struct IPOINT2D { int x, y; };
struct FCOMPLEX { float real, imag; };

/* The voxel array of a stack, seen as reals or as complex pairs. */
union SpaceTime {
    float *fData;
    FCOMPLEX *fcData;
};

enum registration_codes { REG_PW_RAT_OLD = -1, REG_PW_RAT = 1 };

/* A series of nt equal volumes held as one flat float array, x fastest, then y, z, t. */
struct data_stack {
    IPOINT3D dim;
    POINT3D resolution;
    POINT3D origin;
    POINT3D direction;
    POINT3D fov;
    float resolution_t;
    int nt;
    int n2d;
    int n3d;
    int n4d;
    int npts_volume;
    mat44 ijk_to_xyz;
    mat44 xyz_to_ijk;
    int off_diagonal;
    int registration;
    int status;
    int data_type; /* 0 magnitude, 1 complex, 2 magnitude-phase */
    int lDOF;
    union SpaceTime SpaceTime;
    char name[1024];
    data_stack *next;
};

/* File-type and storage-type codes share one numbering. */
enum file_codes {
    FILE_BSHORT = 1, FILE_BFLOAT = 2, FILE_BLONG = 3, FILE_USHORT = 4, FILE_UCHAR = 5,
    FILE_NII = 6, FILE_IMG = 7, FILE_FREESURFER = 8, FILE_UNKNOWN = -1
};

/* The common header record of every volume file kind. */
struct QL_HEADER {
    char file_name[1024];
    IPOINT3D dim;
    POINT3D resolution;
    POINT3D origin;
    POINT3D direction;
    POINT3D fov;
    float resolution_t;
    int nt;
    int n2d, n3d, n4d;
    int byte_order; /* 1 least significant byte first, 0 most significant first */
    mat44 ijk_to_xyz;
    mat44 xyz_to_ijk;
    int off_diagonal;
    int file_type;
    int storage_type;
    int data_type;
    int lDOF;
    float voxel_offset;
    float scale_slope;
    float scale_offset;
    float qfac;
    POINT3D quaternion;
    int registration;
};

/* One data file of a role (individual, template, activation, atlas). */
struct file_list {
    char file_name[1024];
    int nt;
    int start_image;
    int end_image;
    int scale_log;
    int type;
    QL_HEADER header;
    file_list *next;
};

/* One overlay: a set of voxels with weights, shown in one colour. */
struct ovl_list {
    char name[1024];
    int npts;
    short color;
    int active;
    IPOINT3D *voxel;
    float *weight;
    ovl_list *next;
};

struct CONTROL_POINT {
    POINT3D point;
    int color;
};

/* One wire frame: a sequence of control points in space. */
struct wire_list {
    char name[1024];
    int active;
    CONTROL_POINT *control;
    int npts;
    wire_list *next;
};

/* Per-voxel overlay weights and colours of the displayed volume. */
struct ovl_map {
    float *weight;
    short *color;
    int number;
};

/* ---- alignment records ---- */

struct alignment_record {
    IPOINT3D dimension;
    POINT3D resolution;
    POINT3D origin;
    POINT3D direction;
    int RigidBody;
    IPOINT3D OrientRotation;
    IPOINT3D WrapAround;
    int OrientSwapZ;
    float value[15];
    float Orient[4][4];
    float Affine[4][4];
    mat44 ijk_to_xyz;
    mat44 xyz_to_ijk;
    int registration;
};

struct align_aid_record {
    int DisplayType;
    int iParameter;
    int CostFunction;
    int ChangeValue;
    char name[1024][12];
    int Adjust[12];
    float increment[12];
    int iFirstParShown, iLastParShown;
    int DisplaySet;
    IPOINT3D OrientRotation;
    IPOINT3D SubSampleSetting;
    IPOINT3D SubSample;
    int LowResolution;
    int smooth_fov_fraction;
    float saved_value[12];
    int nmask;
    float *mask;
};

struct align_nl_record {
    IPOINT3D Adjust;
    int ViewBasis;
    IPOINT3D Adjusted;
    IPOINT3D BasisGrid;
    IPOINT3D BasisFWHM;
    IPOINT3D NBasis1D;
    int NBasis;
    int iBasis;
    int iCoeff;
    int Lambda_reg;
    IPOINT3D *Index3DPeak;
    IPOINT3D *Index3DStart;
    IPOINT3D *Index3DEnd;
    IPOINT3D *iBasis1D;
    float *Lambda_basis;
    float *value;
    float *increment;
    int *Adjust3D;
    int Gaussian_smoothing;
    float stiffness;
};

/* ---- display model (plain data; the X11 side lives in src/display) ---- */

struct Neighborhood {
    int number;           /* 1, 2 or 4 */
    IPOINT2D address[4];  /* voxel positions (horizontal, vertical) in the plane */
    float weight[4];      /* sums to 1 */
};

struct Activation {
    int nmaps;
    int imap;
    char map_name[1024];
    int scale_log;
    float thresh_lin_low, thresh_lin_high;
    float thresh_log_low, thresh_log_high;
    int color_scheme;
    int color_sign;
    int visible;
    float *fSpaceMatrix;
    float *pFilter;
    data_stack *stack;
};

/* One selectable text item of a menu band or of the information line. */
struct SelectableText {
    char text[128];
    int row;      /* 0 or 1 for the two top menu rows, 2 for the bottom menu */
    int x;        /* left pixel */
    int width;    /* pixels */
    int field;    /* field number (2: overlay items, 4: complex-data items) */
    int bit;      /* bit set in text_selection when the pointer is over it */
    int selected;
    SelectableText *next;
};

struct mosaic_display {
    IPOINT3D DisplayVolumeDim;
    POINT3D DisplayVolumeRes;
    IPOINT3D DimPanels;
    IPOINT2D ImageRegionPixels;
    IPOINT3D PixelDim;
    POINT3D PixelResolution;
    IPOINT3D icross;
    IPOINT3D icursor;
    POINT3D cursor;
    int cursor_selection;
    int text_selection;
    int zoom;
    int flip_X11_y;
    int display_3orthogonal;
    int display_ortho_ZY;
    int display_crosshairs;
    int display_grid;
    int display_data_type;
    int mosaic_orientation;
    int *display_slice;
    int nx_ColorBar;
    int nx_RightPanel;
    int toggle_overlays;
    int transparent_overlay;
    int interpolate;
    Activation activation;
    float *fSpaceMatrix;
    data_stack *stack;
    Neighborhood *NeighborsXY, *NeighborsZY, *NeighborsXZ, *NeighborsYZ;
    int OnGridXY, OnGridZY, OnGridXZ, OnGridYZ;
    SelectableText *SelectText;
    /* program's own additions */
    int iTime;             /* displayed time point of the stack */
    int negative_panels;   /* -m was negative */
    int drawing_overlay;   /* an overlay is being drawn with the mouse */
    int n_display_slice;   /* entries of display_slice */
};

struct graph_struct {
    int type; /* 0,1,2 profiles along x,y,z; 3 time course; 4 histogram; -1 closed */
    int nwidth, nheight;
    int npoints;
    float xmin, xmax, ymin, ymax;
    int yrange_fixed;
    int iTime;
    float *xVector;
    float *yVector;
    float *yVector1;
    int cursor_selection;
    int text_selection;
    SelectableText *SelectText;
};
