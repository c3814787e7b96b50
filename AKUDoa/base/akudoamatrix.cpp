#include "AKUDoa/base/akudoamatrix.h"

#include <fftw3.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

static_assert(std::is_same<akudoa_fftwf_complex, fftwf_complex>::value,
              "akudoa_fftwf_complex must be FFTW's complex type");
static_assert(sizeof(fpoint2d) == 12, "fpoint2d is three 32-bit fields");

namespace {

using AllocFn = void* (*)(size_t);
using FreeFn = void (*)(void*);

// Process-wide hooks; replaced only before any container exists, so plain
// pointers (no synchronisation) suffice.
AllocFn g_alloc = &std::malloc;
FreeFn g_free = &std::free;

// Element blocks from the system allocator start on a 64-byte boundary:
// the vector kernels read table rows in 64-byte blocks, and a row starting
// 16 bytes into a cache line (what malloc gives) splits every such load over
// two lines, which cost the steering-table stream 10-20 %.
constexpr size_t kElementAlign = 64;

// Zeroed element storage from the hook. With the system allocator the whole
// pages inside a large block are handed back to the kernel, which maps them
// to its zero page until they are written, and only the partial pages at
// both ends are cleared by hand: clearing recycled heap memory by writing it
// would make every page resident, and an engine keeps per-bin buffers for
// every bin although a frame writes only its band's rows. The contents are
// zero either way; only untouched pages stop counting as resident memory.
void* allocZeroed(size_t bytes)
{
    if (g_alloc != &std::malloc) {
        void* p = g_alloc(bytes);
        if (p)
            std::memset(p, 0, bytes);
        return p;
    }
    void* p = nullptr;
    if (posix_memalign(&p, kElementAlign, bytes ? bytes : 1) != 0)
        return nullptr;
    static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t first = reinterpret_cast<uintptr_t>(p);
    const uintptr_t begin = (first + page - 1) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(page - 1);
    if (bytes >= 4 * page && end > begin && madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED) == 0) {
        std::memset(p, 0, begin - first);
        std::memset(reinterpret_cast<void*>(end), 0, first + bytes - end);
    } else {
        std::memset(p, 0, bytes);
    }
    return p;
}

template <typename T>
T* allocHeader()
{
    return static_cast<T*>(g_alloc(sizeof(T)));
}

// Vector with hook storage: header and data tested, data zeroed.
template <typename V>
V* createVec(int n)
{
    using Elem = typename std::remove_pointer<decltype(V::data)>::type;
    V* v = allocHeader<V>();
    if (!v)
        return nullptr;
    v->n = n;
    v->data = nullptr;
    if (n >= 1) {
        const size_t bytes = static_cast<size_t>(n) * sizeof(Elem);
        v->data = static_cast<Elem*>(allocZeroed(bytes));
        if (!v->data) {
            g_free(v);
            return nullptr;
        }
    }
    return v;
}

template <typename V>
void destroyVec(V* v)
{
    if (!v)
        return;
    g_free(v->data);
    g_free(v);
}

// One-block matrix with hook storage: header and block tested, block zeroed.
template <typename M>
M* createMat1d(int rows, int cols)
{
    using Elem = typename std::remove_pointer<decltype(M::data)>::type;
    M* m = allocHeader<M>();
    if (!m)
        return nullptr;
    m->rows = rows;
    m->cols = cols;
    m->data = nullptr;
    if (rows >= 1 && cols >= 1) {
        const size_t bytes = static_cast<size_t>(rows) * static_cast<size_t>(cols) * sizeof(Elem);
        m->data = static_cast<Elem*>(allocZeroed(bytes));
        if (!m->data) {
            g_free(m);
            return nullptr;
        }
    }
    return m;
}

template <typename M>
void destroyMat1d(M* m)
{
    if (!m)
        return;
    g_free(m->data);
    m->data = nullptr;
    g_free(m);
}

// Row-pointer matrix with hook storage. Only the header allocation is tested;
// a failed row allocation is not reported (the row would stay null and the
// caller would fault on first use, as with any unchecked allocation).
template <typename M>
M* createMat2d(int rows, int cols)
{
    using Row = typename std::remove_pointer<decltype(M::data)>::type;
    using Elem = typename std::remove_pointer<Row>::type;
    M* m = allocHeader<M>();
    if (!m)
        return nullptr;
    m->rows = rows;
    m->cols = cols;
    m->data = nullptr;
    if (rows >= 1 && cols >= 1) {
        m->data = static_cast<Row*>(g_alloc(static_cast<size_t>(rows) * sizeof(Row)));
        const size_t rowBytes = static_cast<size_t>(cols) * sizeof(Elem);
        for (int r = 0; r < rows; ++r)
            m->data[r] = static_cast<Row>(allocZeroed(rowBytes));
    }
    return m;
}

template <typename M>
void destroyMat2dWith(M* m, FreeFn releaseRows, FreeFn releaseHeader)
{
    if (!m)
        return;
    if (m->data) {
        for (int r = 0; r < m->rows; ++r) {
            if (m->data[r])
                releaseRows(m->data[r]);
            m->data[r] = nullptr;
        }
        releaseRows(m->data);
        m->data = nullptr;
    }
    releaseHeader(m);
}

template <typename M>
void destroyMat2d(M* m)
{
    destroyMat2dWith(m, g_free, g_free);
}

void fftwFree(void* p)
{
    fftwf_free(p);
}

void sysFree(void* p)
{
    std::free(p);
}

} // namespace

void doa_register_malloc(void* allocFn, void* freeFn)
{
    g_alloc = reinterpret_cast<AllocFn>(allocFn);
    g_free = reinterpret_cast<FreeFn>(freeFn);
}

vec_fp32* create_vec_fp32(int n) { return createVec<vec_fp32>(n); }
vec_fp64* create_vec_fp64(int n) { return createVec<vec_fp64>(n); }
vec_int32* create_vec_int32(int n) { return createVec<vec_int32>(n); }

vec_fftwfcplx* create_vec_fftwfcplx(int n)
{
    // n is passed on unchecked: a negative n becomes a huge request that
    // fftwf_malloc refuses; for n == 0 the result is whatever
    // fftwf_malloc(0) gives (a null result counts as failure).
    vec_fftwfcplx* v = allocHeader<vec_fftwfcplx>();
    if (!v)
        return nullptr;
    v->n = n;
    v->data = static_cast<akudoa_fftwf_complex*>(
        fftwf_malloc(static_cast<size_t>(n) * sizeof(akudoa_fftwf_complex)));
    if (!v->data) {
        g_free(v);
        return nullptr;
    }
    return v;
}

mat1d_fp32* create_mat1d_fp32(int rows, int cols) { return createMat1d<mat1d_fp32>(rows, cols); }
mat1d_uint8* create_mat1d_uint8(int rows, int cols) { return createMat1d<mat1d_uint8>(rows, cols); }
mat1d_uint32* create_mat1d_uint32(int rows, int cols) { return createMat1d<mat1d_uint32>(rows, cols); }
mat1d_short* create_mat1d_short(int rows, int cols) { return createMat1d<mat1d_short>(rows, cols); }

mat2d_uint8* create_mat2d_int8(int rows, int cols) { return createMat2d<mat2d_uint8>(rows, cols); }
mat2d_fp32* create_mat2d_fp32(int rows, int cols) { return createMat2d<mat2d_fp32>(rows, cols); }
mat2d_fp64* create_mat2d_fp64(int rows, int cols) { return createMat2d<mat2d_fp64>(rows, cols); }
mat2d_int32* create_mat2d_int32(int rows, int cols) { return createMat2d<mat2d_int32>(rows, cols); }
mat2d_short* create_mat2d_short(int rows, int cols) { return createMat2d<mat2d_short>(rows, cols); }

mat2d_fp32* create_mat2d_fp32_sysmem(int rows, int cols)
{
    mat2d_fp32* m = static_cast<mat2d_fp32*>(std::malloc(sizeof(mat2d_fp32)));
    if (!m)
        return nullptr;
    m->rows = rows;
    m->cols = cols;
    m->data = nullptr;
    if (rows >= 1 && cols >= 1) {
        m->data = static_cast<float**>(std::malloc(static_cast<size_t>(rows) * sizeof(float*)));
        for (int r = 0; r < rows; ++r)
            m->data[r] = static_cast<float*>(std::calloc(static_cast<size_t>(cols), sizeof(float)));
    }
    return m;
}

mat2d_fftwfcplx* create_mat2d_fftwfcplx(int rows, int cols)
{
    mat2d_fftwfcplx* m = allocHeader<mat2d_fftwfcplx>();
    if (!m)
        return nullptr;
    m->rows = rows;
    m->cols = cols;
    m->data = nullptr;
    if (rows >= 1 && cols >= 1) {
        m->data = static_cast<akudoa_fftwf_complex**>(
            fftwf_malloc(static_cast<size_t>(rows) * sizeof(akudoa_fftwf_complex*)));
        const size_t rowBytes = static_cast<size_t>(cols) * sizeof(akudoa_fftwf_complex);
        for (int r = 0; r < rows; ++r) {
            m->data[r] = static_cast<akudoa_fftwf_complex*>(fftwf_malloc(rowBytes));
            if (m->data[r])
                std::memset(m->data[r], 0, rowBytes);
        }
    }
    return m;
}

void destroy_vec_fp32(vec_fp32* v) { destroyVec(v); }
void destroy_vec_fp64(vec_fp64* v) { destroyVec(v); }
void destroy_vec_int32(vec_int32* v) { destroyVec(v); }

void destory_vec_fftwfcplx(vec_fftwfcplx* v)
{
    if (!v)
        return;
    fftwf_free(v->data);
    g_free(v);
}

void destroy_mat1d_fp32(mat1d_fp32* m) { destroyMat1d(m); }
void destroy_mat1d_uint8(mat1d_uint8* m) { destroyMat1d(m); }
void destroy_mat1d_uint32(mat1d_uint32* m) { destroyMat1d(m); }
void destroy_mat1d_short(mat1d_short* m) { destroyMat1d(m); }

void destroy_mat2d_uint8(mat2d_uint8* m) { destroyMat2d(m); }
void destroy_mat2d_fp32(mat2d_fp32* m) { destroyMat2d(m); }
void destroy_mat2d_fp64(mat2d_fp64* m) { destroyMat2d(m); }
void destroy_mat2d_int32(mat2d_int32* m) { destroyMat2d(m); }
void destroy_mat2d_short(mat2d_short* m) { destroyMat2d(m); }

void destroy_mat2d_fp32_sysmem(mat2d_fp32* m) { destroyMat2dWith(m, sysFree, sysFree); }

void destory_mat2d_fftwfcplx(mat2d_fftwfcplx* m)
{
    // The header came from the hook, rows and row array from FFTW.
    destroyMat2dWith(m, fftwFree, g_free);
}

uint32_t mat1d_fp32_size(mat1d_fp32* m)
{
    return static_cast<uint32_t>(m->rows) * static_cast<uint32_t>(m->cols);
}

uint32_t mat2d_fp32_size(mat2d_fp32* m)
{
    return static_cast<uint32_t>(m->rows) * static_cast<uint32_t>(m->cols);
}
