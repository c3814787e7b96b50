#ifndef AKUDOA_BASE_AKUDOAARRAY_H
#define AKUDOA_BASE_AKUDOAARRAY_H

// Free functions over raw float arrays, vec_fp32 and mat2d_fp32 shared by the
// engines, the pickups, background normalization and regression. None checks
// its arguments or reports errors; none allocates on the heap except
// array_findpeak2d (growing its result vector). All counts are element counts.
// Thread safety: each function touches only its arguments.

#include <vector>

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoamatrix.h"

// In-place element-wise operations over a[0..n-1]; they return the end of the
// walk (a + n), which callers ignore.
AKUDOA_EXPORT float* array_scale_fp32_anchor(float* a, float s, unsigned n);
// a[i] = f where a[i] < f; NaN stays NaN.
AKUDOA_EXPORT float* array_setfloor_fp32(float* a, float f, unsigned n);
// Negative values become NaN (and set errno as std::sqrt does).
AKUDOA_EXPORT float* array_sqrt_fp32_anchor(float* a, unsigned n);

// Sum of the first 4*floor(n/4) elements in four lanes, divided by n. The
// n mod 4 tail is not added but counts in the divisor; a[0..3] are read even
// when n < 4. Callers pass multiples of four.
AKUDOA_EXPORT float array_avg_fp32(float* a, unsigned n);

// v[i] = fma(i, (b - a)/(n - 1), a) over v's length n.
AKUDOA_EXPORT void vec_fp32_linespace(vec_fp32* v, float a, float b);

// Extremes; ties keep the earliest element. Element 0 is read even when the
// vector is empty.
AKUDOA_EXPORT void vec_fp32_find_min(vec_fp32* v, float& m);
AKUDOA_EXPORT void vec_fp32_find_max(vec_fp32* v, float& m);
AKUDOA_EXPORT void vec_fp32_find_min(vec_fp32* v, float& m, int& idx);
AKUDOA_EXPORT void vec_fp32_find_max(vec_fp32* v, float& m, int& idx);

// Resamples src into dst's size with pixel-centre mapping; border rows and
// columns extrapolate linearly. src needs at least 2 x 2 elements.
AKUDOA_EXPORT void mat_fp32_bilinearInterpol(mat2d_fp32* src, mat2d_fp32* dst);

// Squared and plain grid distance between (x, y) of two points; val ignored.
AKUDOA_EXPORT float point_quad(fpoint2d p, fpoint2d q);
AKUDOA_EXPORT float point_distance(fpoint2d p, fpoint2d q);

// 5 x 5 peak test on five row pointers of five values. dr/dc shift the
// centre towards the top/left (negative) or bottom/right (positive) border:
// rows max(-dr,0)..4-max(dr,0) and columns max(-dc,0)..4-max(dc,0) are
// examined, the centre is (2-max(dr,0), 2-max(dc,0)). True when no examined
// value is strictly greater than the centre.
AKUDOA_EXPORT bool isPeak(float** block, int dr, int dc);
// True when none of the 25 values exceeds v.
AKUDOA_EXPORT bool isPeak2(float* block25, float v);
// True when none of a[0..n-1] exceeds v (true for n < 1).
AKUDOA_EXPORT bool isPeak3(float* a, float v, int n);
// Largest of a[0..n-1]; a[0] when n < 2.
AKUDOA_EXPORT float bufMax(float* a, int n);

// Single-precision sum of the nRows x nCols block at (row0, col0), row by
// row; 0 when nRows < 1.
AKUDOA_EXPORT float mat2d_fp32_partSum(mat2d_fp32* m, int nRows, int nCols, int row0, int col0);

// Scans rows [rowBegin, rowEnd) and columns [colBegin, colEnd) of a row-major
// rows x cols map for points strictly above threshold that no value of their
// 5 x 5 neighbourhood exceeds (outside the image counts as 0). Each peak
// {val, row, col} is appended to out and the two columns to its right are
// skipped. Finally all of out is sorted by val, descending, unstably.
AKUDOA_EXPORT void array_findpeak2d(float* map, int rows, int cols, float threshold,
                                    std::vector<fpoint2d>& out,
                                    int rowBegin, int rowEnd, int colBegin, int colEnd);

// Positive-part upper median: the upper median of the positive values when
// there are any, else of all values. Scratch copy on the stack (sized to the
// input: a few thousand values).
AKUDOA_EXPORT float mat2d_fp32_median(mat2d_fp32* m);
AKUDOA_EXPORT float array_media_fp32(float* a, unsigned n);

#endif
