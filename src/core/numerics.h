#pragma once
/* Typed allocation that never returns on failure, matrix inversion and products, complex
   arithmetic, window and interpolation kernels, and the incomplete beta function.
   Stateless; no globals; no X11. */

#include "types.h"

/* Prints "Fatal Error:\n", the message, a newline and "Program aborted.\n" on stderr; exit(1). */
[[noreturn]] void alloc_error(const char *message);

/* Vectors: n elements, not cleared. Byte counts are 32-bit products (no block reaches 4 GiB). */
char *char_vector(int n);                      void free_char_vector(char *v);
unsigned char *unsigned_char_vector(int n);    void free_unsigned_char_vector(unsigned char *v);
float *float_vector(int n);                    void free_float_vector(float *v);
POINT3D *point3d_vector(int n);                void free_point3d_vector(POINT3D *v);
IPOINT3D *ipoint3d_vector(int n);              void free_ipoint3d_vector(IPOINT3D *v);
double *double_vector(int n);                  void free_double_vector(double *v);
int *int_vector(int n);                        void free_int_vector(int *v);
short *short_vector(int n);                    void free_short_vector(short *v);
unsigned short *unsigned_short_vector(int n);  void free_unsigned_short_vector(unsigned short *v);
long *long_vector(int n);                      void free_long_vector(long *v);
FCOMPLEX *fcomplex_vector(int n);              void free_fcomplex_vector(FCOMPLEX *v);
struct DCOMPLEX { double real, imag; };
struct LCOMPLEX { long real, imag; };
struct SCOMPLEX { short real, imag; };
DCOMPLEX *dcomplex_vector(int n);              void free_dcomplex_vector(DCOMPLEX *v);
LCOMPLEX *lcomplex_vector(int n);              void free_lcomplex_vector(LCOMPLEX *v);
SCOMPLEX *scomplex_vector(int n);              void free_scomplex_vector(SCOMPLEX *v);

/* Matrices: arrays of row pointers, each row its own block; freed last row first. */
float **float_matrix(int nrows, int ncols);    void free_float_matrix(float **m, int nrows, int ncols);
double **double_matrix(int nrows, int ncols);  void free_double_matrix(double **m, int nrows, int ncols);
int **int_matrix(int nrows, int ncols);        void free_int_matrix(int **m, int nrows, int ncols);
short **short_matrix(int nrows, int ncols);    void free_short_matrix(short **m, int nrows, int ncols);
long **long_matrix(int nrows, int ncols);      void free_long_matrix(long **m, int nrows, int ncols);

/* Text helpers. */
int is_upper_case(int c);
int to_lower_case(int c);
void convert_to_lower(char *s);
char *next_non_white(char *s);

/* Inversion in place. Return 0 on success, 1 on failure (error_row = the zero-pivot column). */
int invert_3x3_matrix(float **m);
int dInvertSquareMatrix(int n, double **a, int *error_row);
int rInvertSquareMatrix(int n, float **a, int *error_row);

/* C = A' B' (A' = A or its transpose); float sums, k ascending. C must not alias A or B. */
void Matrix_Product(float **C, int nrows, int ncols, float **A, int transpose_A, int ninner,
                    float **B, int transpose_B);
void Matrix_Vector_Product(float *y, int n, float **A, int transpose, int m, float *x);
float Trace_of_Matrix(int n, float **A);
/* result (ncols x nrows) = (A'A)^-1 A'. A failed inversion is not reported. */
void Matrix_PseudoInverse(float **A, int nrows, int ncols, float **result);

FCOMPLEX FCMult(FCOMPLEX a, FCOMPLEX b);
FCOMPLEX FCMultStar(FCOMPLEX a, FCOMPLEX b);
FCOMPLEX FCAdd(FCOMPLEX a, FCOMPLEX b);
float compute_amplitude(FCOMPLEX z);
/* Phase of z in radians, -pi..pi: atan(im/re) in double, plus 3.141592654 when re < 0, the
   sum rounded to float once and wrapped by 6.283185308 when above 3.141592654.
   Deliberate: (-1, 0) gives -3.1415925, not +pi: atan(0) + 3.141592654 held in a float
   exceeds 3.141592654 and is wrapped. Pinned by ComputePhase.NegativeRealAxisWraps. */
float compute_phase(FCOMPLEX z);

/* Kernels: computed in double, returned as float. */
float Kaiser_Bessel(double x, double width, double beta);
/* Deliberate: the hyperbolic branch (t < 0) is returned in the imaginary part. */
FCOMPLEX inverse_Kaiser_Bessel(double x, double width, double beta);
double bessi0(double x);
float Gauss(float x, float y, float sigma);
float inverse_Gauss(float x, float y, float sigma);
float ham_sinc(int n, float x);
float Lanczos_filter(int n, float x);

/* Half-length cyclic shift. Deliberate: for even n, shift is ignored. */
void swap_x(FCOMPLEX *data, int n, int shift);
/* Deliberate: 1 is not a power of 2 here (returns 0 with lower 1, upper 2). */
int is_power_of_2(int n, int *lower, int *upper);

/* Regularised incomplete beta I_x(a, b); a or b <= 0 ends the program. */
double ibeta(double a, double b, double x);
double incbcf(double a, double b, double x);
double incbd(double a, double b, double x);
double pseries(double a, double b, double x);
