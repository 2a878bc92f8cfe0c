#pragma once
/* Writers of small volume files for tests: quill (header text + raw data), NIfTI-1 (".nii" or
   ".hdr"/".img", either byte order, orientation methods 1-3, the degrees-of-freedom extension)
   and FreeSurfer slice stacks. Values are given as doubles and converted to the storage type
   (integers by rounding toward zero, as a C cast does). Every writer returns true on success.

   Quick use:
     std::vector<float> v(4 * 3 * 2, 1.0f);
     write_nifti_float("a.nii", 4, 3, 2, 1, 2.0f, v.data());          // 2 mm voxels, method 1
     write_quill_volume("b.bshort", 4, 3, 2, 1, 1, 0, values);        // 16-bit, MSB first
*/
#include <string>
#include <vector>

#include <nifti1.h>

/* Storage codes of the program: 1 int16, 2 float32, 3 int32, 4 uint16, 5 uint8. */
int fixture_storage_bytes(int storage_type);

/* The values encoded in a storage type and byte order (1 least significant byte first,
   0 most significant first). */
std::vector<unsigned char> encode_values(const std::vector<double> &values, int storage_type,
                                         int byte_order);
/* The byte order of this machine, 1 or 0. */
int fixture_machine_byte_order();

bool write_binary_file(const std::string &name, const std::vector<unsigned char> &bytes);

/* ---- quill ---- */

/* The quill header name of a data file: extension replaced by "hdr", or ".hdr" appended
   when the name has no extension (no '.' after the last '/'). */
std::string quill_header_name(const std::string &data_name);

/* Writes header_text verbatim as the header of data_name. */
bool write_quill_header(const std::string &data_name, const std::string &header_text);

/* Writes a header with the lines "x", "y", "z", "t", "byte-order" and "storage-type" (the last
   omitted when storage_type's keyword should come from extra_lines, i.e. storage_type <= 0
   writes no storage-type line but the data as float32), then extra_lines verbatim, and the data
   file with values encoded in storage_type and byte_order. */
bool write_quill_volume(const std::string &data_name, int nx, int ny, int nz, int nt,
                        int storage_type, int byte_order, const std::vector<double> &values,
                        const std::string &extra_lines = "");

/* ---- NIfTI-1 ---- */

struct NiftiFixture {
    nifti_1_header h;            /* filled by nifti_fixture(); edit any field before writing */
    bool other_byte_order;       /* write the header byte-reversed (data stay as given) */
    bool dof_extension;          /* add an extension of code 20 holding dof (as stored) */
    int dof;
    long truncate_at;            /* > 0: the header file is cut to this many bytes */
};

/* A header for nx*ny*nz*nt values of the NIfTI datatype (2, 4, 8, 16, 32, 512, 64...),
   voxel size res on x, y, z, time step 1, method 1 (qform_code = sform_code = 0), unscaled,
   dim[0] 3 when nt is 1 and 4 otherwise, vox_offset 352 (set when written). */
NiftiFixture nifti_fixture(int nx, int ny, int nz, int nt, float res, int datatype);

/* Orientation helpers: method 2 (qform_code 1, sform_code 0) with the quaternion and offsets,
   qfac in pixdim[0]; method 3 (both codes 1) with the three sform rows. */
void set_nifti_method2(NiftiFixture *f, float b, float c, float d, float qx, float qy, float qz,
                       float qfac);
void set_nifti_method3(NiftiFixture *f, const float srow_x[4], const float srow_y[4],
                       const float srow_z[4]);

/* Writes a NIfTI-1 file. A path ending in ".nii" gets the header, the extender (and the
   extension), and the data at vox_offset (vox_offset is set to 352, or 368 with the
   extension). A path ending in ".img" or ".hdr" writes the header to the ".hdr" file and the
   data to the ".img" file at offset 0 (magic "ni1"). data_bytes are written as given. */
bool write_nifti(const std::string &path, const NiftiFixture &fixture,
                 const std::vector<unsigned char> &data_bytes);

/* One-liner: a float32 volume with cubic voxels of size res, method 1. */
bool write_nifti_float(const std::string &path, int nx, int ny, int nz, int nt, float res,
                       const float *data);

/* ---- FreeSurfer ---- */

/* Writes the stem's geometry file (stem without its final '_' + ".bhdr": cols, rows, nslices,
   n_time_points, slice_thick, the corners of an axial nx*res_xy by ny*res_xy plane, image_tr
   tr), and for each slice z the header stem%03d.hdr ("ny nx nt byte_order") and the data file
   stem%03d.bshort (storage 1) or .bfloat (storage 2) holding the nt planes of that slice.
   values are x fastest, then y, z, t. extra_bhdr_lines are appended to the geometry file. */
bool write_freesurfer_volume(const std::string &stem, int nx, int ny, int nz, int nt, float res_xy,
                             float slice_thick, float tr, int storage_type, int byte_order,
                             const std::vector<double> &values,
                             const std::string &extra_bhdr_lines = "");
