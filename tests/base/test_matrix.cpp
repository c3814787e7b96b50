#include <gtest/gtest.h>

#include <fftw3.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

#include "AKUDoa/base/akudoamatrix.h"

namespace {

// Counting allocator installed through doa_register_malloc. Records every
// request so tests can tell which storage went through the hooks.
struct AllocLog {
    int allocs = 0;
    int frees = 0;
    int live = 0;    // hook blocks handed out and not yet released
    int failAt = -1; // index of the allocation to refuse, -1: none
    std::vector<size_t> sizes;
};
AllocLog g_log;

void* countingAlloc(size_t n)
{
    const int index = g_log.allocs++;
    g_log.sizes.push_back(n);
    if (index == g_log.failAt)
        return nullptr;
    void* p = std::malloc(n);
    if (p)
        ++g_log.live;
    return p;
}

void countingFree(void* p)
{
    ++g_log.frees;
    if (p)
        --g_log.live;
    std::free(p);
}

// Installs the counting hooks for one test and puts malloc/free back after.
class MatrixHooks : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_log = AllocLog();
        doa_register_malloc(reinterpret_cast<void*>(&countingAlloc),
                            reinterpret_cast<void*>(&countingFree));
    }
    void TearDown() override
    {
        doa_register_malloc(reinterpret_cast<void*>(&std::malloc),
                            reinterpret_cast<void*>(&std::free));
    }
    void reset() { g_log = AllocLog(); }
};

template <typename T>
bool allZero(const T* p, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (p[i] != T(0))
            return false;
    }
    return true;
}

template <typename M>
bool rowsZero(const M* m)
{
    for (int r = 0; r < m->rows; ++r) {
        if (!allZero(m->data[r], static_cast<size_t>(m->cols)))
            return false;
    }
    return true;
}

// Writes a distinct value into every element, then checks each row still
// holds its own values: catches rows that alias or are allocated too short.
template <typename M>
void expectIndependentRows(M* m)
{
    for (int r = 0; r < m->rows; ++r)
        for (int c = 0; c < m->cols; ++c)
            m->data[r][c] = static_cast<std::remove_reference_t<decltype(m->data[r][c])>>(r * 7 + c + 1);
    for (int r = 0; r < m->rows; ++r)
        for (int c = 0; c < m->cols; ++c)
            ASSERT_EQ(m->data[r][c], r * 7 + c + 1) << "row " << r << " col " << c;
}

} // namespace

TEST(MatrixCreate, ZeroLengthVectorHasNullData)
{
    vec_fp32* v = create_vec_fp32(0);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->n, 0);
    EXPECT_EQ(v->data, nullptr);
    destroy_vec_fp32(v);

    vec_int32* neg = create_vec_int32(-3);
    ASSERT_NE(neg, nullptr);
    EXPECT_EQ(neg->n, -3);
    EXPECT_EQ(neg->data, nullptr);
    destroy_vec_int32(neg);
}

TEST(MatrixCreate, EmptyDimensionKeepsDimsAndNullData)
{
    mat2d_fp32* a = create_mat2d_fp32(3, 0);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->rows, 3);
    EXPECT_EQ(a->cols, 0);
    EXPECT_EQ(a->data, nullptr);
    EXPECT_EQ(mat2d_fp32_size(a), 0u);

    mat2d_fp32* b = create_mat2d_fp32(0, 5);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->rows, 0);
    EXPECT_EQ(b->cols, 5);
    EXPECT_EQ(b->data, nullptr);
    EXPECT_EQ(mat2d_fp32_size(b), 0u);
    destroy_mat2d_fp32(a);
    destroy_mat2d_fp32(b);

    // Negative columns with positive rows: no storage for any shape.
    mat2d_fp32* c = create_mat2d_fp32(4, -2);
    mat2d_fp32* cs = create_mat2d_fp32_sysmem(4, -2);
    mat2d_uint8* c8 = create_mat2d_int8(4, -2);
    mat2d_fftwfcplx* cc = create_mat2d_fftwfcplx(4, -2);
    mat1d_fp32* c1 = create_mat1d_fp32(4, -2);
    mat1d_short* c1s = create_mat1d_short(4, -1);
    ASSERT_TRUE(c && cs && c8 && cc && c1 && c1s);
    EXPECT_EQ(c->data, nullptr);
    EXPECT_EQ(cs->data, nullptr);
    EXPECT_EQ(c8->data, nullptr);
    EXPECT_EQ(cc->data, nullptr);
    EXPECT_EQ(c1->data, nullptr);
    EXPECT_EQ(c1s->data, nullptr);
    EXPECT_EQ(c->cols, -2);
    destroy_mat2d_fp32(c);
    destroy_mat2d_fp32_sysmem(cs);
    destroy_mat2d_uint8(c8);
    destory_mat2d_fftwfcplx(cc);
    destroy_mat1d_fp32(c1);
    destroy_mat1d_short(c1s);
}

TEST(MatrixCreate, DestroyNullIsNoOp)
{
    destroy_vec_fp32(nullptr);
    destroy_vec_fp64(nullptr);
    destroy_vec_int32(nullptr);
    destory_vec_fftwfcplx(nullptr);
    destroy_mat1d_fp32(nullptr);
    destroy_mat1d_uint8(nullptr);
    destroy_mat1d_uint32(nullptr);
    destroy_mat1d_short(nullptr);
    destroy_mat2d_uint8(nullptr);
    destroy_mat2d_fp32(nullptr);
    destroy_mat2d_fp64(nullptr);
    destroy_mat2d_int32(nullptr);
    destroy_mat2d_short(nullptr);
    destroy_mat2d_fp32_sysmem(nullptr);
    destory_mat2d_fftwfcplx(nullptr);
    SUCCEED() << "no destroyer dereferenced null";
}

// Every element is zero after creation and every element is writable (the
// sanitizer build catches blocks or rows that are too short).
TEST(MatrixCreate, ZeroFilledAtFullSize)
{
    vec_fp32* vf = create_vec_fp32(37);
    vec_fp64* vd = create_vec_fp64(19);
    vec_int32* vi = create_vec_int32(5);
    ASSERT_TRUE(vf && vd && vi);
    EXPECT_TRUE(allZero(vf->data, 37));
    EXPECT_TRUE(allZero(vd->data, 19));
    EXPECT_TRUE(allZero(vi->data, 5));
    vd->data[18] = 1.0;
    destroy_vec_fp32(vf);
    destroy_vec_fp64(vd);
    destroy_vec_int32(vi);

    mat1d_fp32* m1 = create_mat1d_fp32(3, 7);
    mat1d_uint8* m2 = create_mat1d_uint8(5, 3);
    mat1d_uint32* m3 = create_mat1d_uint32(2, 9);
    mat1d_short* m4 = create_mat1d_short(6, 4);
    ASSERT_TRUE(m1 && m2 && m3 && m4);
    EXPECT_TRUE(allZero(m1->data, 21));
    EXPECT_TRUE(allZero(m2->data, 15));
    EXPECT_TRUE(allZero(m3->data, 18));
    EXPECT_TRUE(allZero(m4->data, 24));
    EXPECT_EQ(mat1d_fp32_size(m1), 21u);
    m4->data[23] = -1;
    destroy_mat1d_fp32(m1);
    destroy_mat1d_uint8(m2);
    destroy_mat1d_uint32(m3);
    destroy_mat1d_short(m4);

    mat2d_uint8* q = create_mat2d_int8(4, 16);
    mat2d_fp32* f = create_mat2d_fp32(5, 8);
    mat2d_fp64* d = create_mat2d_fp64(3, 3);
    mat2d_int32* i = create_mat2d_int32(2, 11);
    mat2d_short* s = create_mat2d_short(7, 2);
    mat2d_fp32* sys = create_mat2d_fp32_sysmem(6, 5);
    ASSERT_TRUE(q && f && d && i && s && sys);
    EXPECT_TRUE(rowsZero(q));
    EXPECT_TRUE(rowsZero(f));
    EXPECT_TRUE(rowsZero(d));
    EXPECT_TRUE(rowsZero(i));
    EXPECT_TRUE(rowsZero(s));
    EXPECT_TRUE(rowsZero(sys));
    EXPECT_EQ(mat2d_fp32_size(f), 40u);
    expectIndependentRows(q);
    expectIndependentRows(f);
    expectIndependentRows(d);
    expectIndependentRows(i);
    expectIndependentRows(s);
    expectIndependentRows(sys);
    destroy_mat2d_uint8(q);
    destroy_mat2d_fp32(f);
    destroy_mat2d_fp64(d);
    destroy_mat2d_int32(i);
    destroy_mat2d_short(s);
    destroy_mat2d_fp32_sysmem(sys);
}

TEST(MatrixCreate, FftwContainersAreAlignedAndRowsZeroed)
{
    mat2d_fftwfcplx* m = create_mat2d_fftwfcplx(3, 513);
    ASSERT_NE(m, nullptr);
    ASSERT_NE(m->data, nullptr);
    for (int r = 0; r < 3; ++r) {
        EXPECT_EQ(fftwf_alignment_of(m->data[r][0]), 0) << "row " << r;
        for (int c = 0; c < 513; ++c) {
            ASSERT_EQ(m->data[r][c][0], 0.0f);
            ASSERT_EQ(m->data[r][c][1], 0.0f);
        }
    }
    m->data[2][512][1] = 3.0f;
    destory_mat2d_fftwfcplx(m);

    vec_fftwfcplx* v = create_vec_fftwfcplx(1025);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->n, 1025);
    ASSERT_NE(v->data, nullptr);
    EXPECT_EQ(fftwf_alignment_of(v->data[0]), 0);
    v->data[1024][0] = 1.0f; // whole extent writable
    destory_vec_fftwfcplx(v);
}

TEST(MatrixCreate, SizeIsUnsignedElementCount)
{
    // 70000 x 60000 overflows int32 but fits the unsigned count; only the two
    // dimension fields are read.
    mat2d_fp32 big{70000, 60000, nullptr};
    mat1d_fp32 big1{70000, 60000, nullptr};
    EXPECT_EQ(mat2d_fp32_size(&big), 4200000000u);
    EXPECT_EQ(mat1d_fp32_size(&big1), 4200000000u);
}

TEST_F(MatrixHooks, HookCreatorsAndDestroyersGoThroughHooks)
{
    // Vector: header + data, data sized n elements.
    vec_fp64* v = create_vec_fp64(5);
    EXPECT_EQ(g_log.allocs, 2);
    ASSERT_EQ(g_log.sizes.size(), 2u);
    EXPECT_EQ(g_log.sizes[0], sizeof(vec_fp64));
    EXPECT_EQ(g_log.sizes[1], 40u);
    destroy_vec_fp64(v);
    EXPECT_EQ(g_log.frees, 2);

    // Empty vector: only the header.
    reset();
    vec_fp32* e = create_vec_fp32(0);
    EXPECT_EQ(g_log.allocs, 1);
    destroy_vec_fp32(e);
    EXPECT_EQ(g_log.live, 0);

    // One-block matrix: header + one block of rows*cols elements.
    reset();
    mat1d_short* s = create_mat1d_short(3, 5);
    EXPECT_EQ(g_log.allocs, 2);
    EXPECT_EQ(g_log.sizes[1], 30u);
    destroy_mat1d_short(s);
    EXPECT_EQ(g_log.frees, 2);

    reset();
    mat1d_uint32* u = create_mat1d_uint32(2, 3);
    EXPECT_EQ(g_log.sizes[1], 24u);
    destroy_mat1d_uint32(u);
    EXPECT_EQ(g_log.frees, 2);

    // Row-pointer matrix: header, row array, one allocation per row.
    reset();
    mat2d_fp32* f = create_mat2d_fp32(4, 6);
    EXPECT_EQ(g_log.allocs, 6);
    EXPECT_EQ(g_log.sizes[1], 4 * sizeof(float*));
    for (int r = 0; r < 4; ++r)
        EXPECT_EQ(g_log.sizes[2 + r], 24u);
    destroy_mat2d_fp32(f);
    EXPECT_EQ(g_log.frees, 6);

    reset();
    mat2d_uint8* q = create_mat2d_int8(3, 16);
    mat2d_int32* i = create_mat2d_int32(2, 2);
    mat2d_fp64* d = create_mat2d_fp64(1, 3);
    mat2d_short* sh = create_mat2d_short(2, 8);
    EXPECT_EQ(g_log.allocs, 5 + 4 + 3 + 4);
    EXPECT_EQ(g_log.sizes[2], 16u);
    destroy_mat2d_uint8(q);
    destroy_mat2d_int32(i);
    destroy_mat2d_fp64(d);
    destroy_mat2d_short(sh);
    EXPECT_EQ(g_log.frees, 5 + 4 + 3 + 4);

    // Empty row-pointer matrix: header only, header release only.
    reset();
    mat2d_fp32* z = create_mat2d_fp32(0, 9);
    EXPECT_EQ(g_log.allocs, 1);
    destroy_mat2d_fp32(z);
    EXPECT_EQ(g_log.frees, 1);
}

TEST_F(MatrixHooks, SysmemAndFftwStorageBypassHooks)
{
    mat2d_fp32* sys = create_mat2d_fp32_sysmem(8, 32);
    EXPECT_EQ(g_log.allocs, 0);
    destroy_mat2d_fp32_sysmem(sys);
    EXPECT_EQ(g_log.frees, 0);

    // FFTW containers: only the header comes from the hook.
    mat2d_fftwfcplx* c = create_mat2d_fftwfcplx(5, 17);
    EXPECT_EQ(g_log.allocs, 1);
    EXPECT_EQ(g_log.sizes[0], sizeof(mat2d_fftwfcplx));
    destory_mat2d_fftwfcplx(c);
    EXPECT_EQ(g_log.frees, 1);

    reset();
    vec_fftwfcplx* v = create_vec_fftwfcplx(64);
    EXPECT_EQ(g_log.allocs, 1);
    destory_vec_fftwfcplx(v);
    EXPECT_EQ(g_log.frees, 1);
}

TEST_F(MatrixHooks, FailedAllocationsReturnNullAndReleaseHeader)
{
    // Header refused: null for every creator that allocates a header.
    g_log.failAt = 0;
    EXPECT_EQ(create_vec_fp32(4), nullptr);
    g_log.allocs = 0;
    EXPECT_EQ(create_vec_fp64(4), nullptr);
    g_log.allocs = 0;
    EXPECT_EQ(create_vec_int32(4), nullptr);
    g_log.allocs = 0;
    EXPECT_EQ(create_mat1d_fp32(2, 2), nullptr);
    g_log.allocs = 0;
    EXPECT_EQ(create_mat1d_uint8(2, 2), nullptr);
    g_log.allocs = 0;
    EXPECT_EQ(create_mat2d_fp32(2, 2), nullptr);
    g_log.allocs = 0;
    EXPECT_EQ(create_mat2d_int8(2, 2), nullptr);
    g_log.allocs = 0;
    EXPECT_EQ(create_mat2d_fftwfcplx(2, 2), nullptr);
    g_log.allocs = 0;
    EXPECT_EQ(create_vec_fftwfcplx(2), nullptr);
    EXPECT_EQ(g_log.frees, 0);

    // Data refused: null, and the header already obtained is given back.
    reset();
    g_log.failAt = 1;
    EXPECT_EQ(create_vec_fp32(8), nullptr);
    EXPECT_EQ(g_log.frees, 1);
    reset();
    g_log.failAt = 1;
    EXPECT_EQ(create_vec_int32(8), nullptr);
    EXPECT_EQ(g_log.frees, 1);
    reset();
    g_log.failAt = 1;
    EXPECT_EQ(create_mat1d_uint32(3, 3), nullptr);
    EXPECT_EQ(g_log.frees, 1);
    reset();
    g_log.failAt = 1;
    EXPECT_EQ(create_mat1d_short(3, 3), nullptr);
    EXPECT_EQ(g_log.frees, 1);
}
