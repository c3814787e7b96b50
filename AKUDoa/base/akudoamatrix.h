#ifndef AKUDOA_BASE_AKUDOAMATRIX_H
#define AKUDOA_BASE_AKUDOAMATRIX_H

// Plain containers that cross every interface of the library: a header record
// with the dimensions and a pointer to the elements. No methods, no reference
// counts, no bounds checks. The creator's caller owns the result and releases
// it with the matching destroy_ (or destory_) function; containers are never
// resized.
//
// Element storage (and the headers) come from one replaceable allocator pair,
// see doa_register_malloc. Two variants are independent of it: the _sysmem
// matrices always use the system heap, the FFTW containers always use FFTW's
// aligned allocator for their elements (FFTW plans want aligned arrays).

#include <cstdint>

#include "AKUDoa/base/akudoaexport.h"

// Identical to FFTW's fftwf_complex (float[2]: real, imaginary), declared here
// so that the public headers need not include fftw3.h.
typedef float akudoa_fftwf_complex[2];

// A value at a heat-map grid point: x is the row index, y the column index.
struct fpoint2d {
    float val;
    int32_t x;
    int32_t y;
};

// Vectors: data is null when n < 1.
struct vec_fp32 {
    int32_t n;
    float* data;
};

struct vec_fp64 {
    int32_t n;
    double* data;
};

struct vec_int32 {
    int32_t n;
    int32_t* data;
};

// Elements are uninitialised after creation.
struct vec_fftwfcplx {
    int32_t n;
    akudoa_fftwf_complex* data;
};

// One-block matrices: element (r, c) at data[r * cols + c]; data is null when
// either dimension is < 1.
struct mat1d_fp32 {
    int32_t rows;
    int32_t cols;
    float* data;
};

struct mat1d_uint8 {
    int32_t rows;
    int32_t cols;
    uint8_t* data;
};

struct mat1d_uint32 {
    int32_t rows;
    int32_t cols;
    uint32_t* data;
};

struct mat1d_short {
    int32_t rows;
    int32_t cols;
    int16_t* data;
};

// Row-pointer matrices: data[r] is a separate allocation of cols elements, so
// rows are not contiguous with one another; walk them row by row. data is
// null when either dimension is < 1.
struct mat2d_fp32 {
    int32_t rows;
    int32_t cols;
    float** data;
};

struct mat2d_fp64 {
    int32_t rows;
    int32_t cols;
    double** data;
};

struct mat2d_int32 {
    int32_t rows;
    int32_t cols;
    int32_t** data;
};

struct mat2d_short {
    int32_t rows;
    int32_t cols;
    int16_t** data;
};

// The imaging engines keep signed two's-complement int8 values (-127..127) in
// these bytes.
struct mat2d_uint8 {
    int32_t rows;
    int32_t cols;
    uint8_t** data;
};

struct mat2d_fftwfcplx {
    int32_t rows;
    int32_t cols;
    akudoa_fftwf_complex** data;
};

// Replaces the process-wide allocator pair (initially malloc and free).
// allocFn has the signature void*(size_t), freeFn void(void*). Not checked,
// not thread safe: call it before any container exists, because a container
// is released through whichever pair is current when it is destroyed.
AKUDOA_EXPORT void doa_register_malloc(void* allocFn, void* freeFn);

// Creators: zero-filled (except vec_fftwfcplx), null on a failed header
// allocation. A dimension below 1 gives a header with null data.
AKUDOA_EXPORT vec_fp32* create_vec_fp32(int n);
AKUDOA_EXPORT vec_fp64* create_vec_fp64(int n);
AKUDOA_EXPORT vec_int32* create_vec_int32(int n);
AKUDOA_EXPORT vec_fftwfcplx* create_vec_fftwfcplx(int n);

AKUDOA_EXPORT mat1d_fp32* create_mat1d_fp32(int rows, int cols);
AKUDOA_EXPORT mat1d_uint8* create_mat1d_uint8(int rows, int cols);
AKUDOA_EXPORT mat1d_uint32* create_mat1d_uint32(int rows, int cols);
AKUDOA_EXPORT mat1d_short* create_mat1d_short(int rows, int cols);

// Partner destroyer: destroy_mat2d_uint8.
AKUDOA_EXPORT mat2d_uint8* create_mat2d_int8(int rows, int cols);
AKUDOA_EXPORT mat2d_fp32* create_mat2d_fp32(int rows, int cols);
AKUDOA_EXPORT mat2d_fp64* create_mat2d_fp64(int rows, int cols);
AKUDOA_EXPORT mat2d_int32* create_mat2d_int32(int rows, int cols);
AKUDOA_EXPORT mat2d_short* create_mat2d_short(int rows, int cols);
// Header and rows from malloc/calloc whatever hooks are registered; release
// with destroy_mat2d_fp32_sysmem only.
AKUDOA_EXPORT mat2d_fp32* create_mat2d_fp32_sysmem(int rows, int cols);
// Row array and rows from fftwf_malloc, header from the hook.
AKUDOA_EXPORT mat2d_fftwfcplx* create_mat2d_fftwfcplx(int rows, int cols);

// Destroyers: each accepts null and then does nothing.
AKUDOA_EXPORT void destroy_vec_fp32(vec_fp32* v);
AKUDOA_EXPORT void destroy_vec_fp64(vec_fp64* v);
AKUDOA_EXPORT void destroy_vec_int32(vec_int32* v);
AKUDOA_EXPORT void destory_vec_fftwfcplx(vec_fftwfcplx* v);

AKUDOA_EXPORT void destroy_mat1d_fp32(mat1d_fp32* m);
AKUDOA_EXPORT void destroy_mat1d_uint8(mat1d_uint8* m);
AKUDOA_EXPORT void destroy_mat1d_uint32(mat1d_uint32* m);
AKUDOA_EXPORT void destroy_mat1d_short(mat1d_short* m);

AKUDOA_EXPORT void destroy_mat2d_uint8(mat2d_uint8* m);
AKUDOA_EXPORT void destroy_mat2d_fp32(mat2d_fp32* m);
AKUDOA_EXPORT void destroy_mat2d_fp64(mat2d_fp64* m);
AKUDOA_EXPORT void destroy_mat2d_int32(mat2d_int32* m);
AKUDOA_EXPORT void destroy_mat2d_short(mat2d_short* m);
AKUDOA_EXPORT void destroy_mat2d_fp32_sysmem(mat2d_fp32* m);
AKUDOA_EXPORT void destory_mat2d_fftwfcplx(mat2d_fftwfcplx* m);

// rows * cols, in elements (not bytes).
AKUDOA_EXPORT uint32_t mat1d_fp32_size(mat1d_fp32* m);
AKUDOA_EXPORT uint32_t mat2d_fp32_size(mat2d_fp32* m);

#endif
