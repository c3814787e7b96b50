#include <gtest/gtest.h>

#include <fftw3.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "AKUDoa/base/akudoamatrix.h"

namespace {

// Counting allocator installed through doa_register_malloc.
struct AllocLog {
    int allocs = 0, frees = 0, live = 0;
    int failAt = -1; // index of the allocation to refuse
    std::vector<size_t> sizes;
} g_log;

void* countingAlloc(size_t n)
{
    g_log.sizes.push_back(n);
    return g_log.allocs++ == g_log.failAt ? nullptr : (++g_log.live, std::malloc(n));
}
void countingFree(void* p)
{
    ++g_log.frees;
    g_log.live -= p != nullptr;
    std::free(p);
}

// Row-pointer matrix: header, row array and one block per row from the hooks
// (none for the system-heap variant); zero-filled, rows independent and full
// length (the sanitizer build sees short rows); empty shapes have no storage;
// a refused header gives null.
template <class M>
void checkRows(M* (*create)(int, int), void (*destroy)(M*), bool hooked)
{
    using E = std::remove_pointer_t<std::remove_pointer_t<decltype(M::data)>>;
    g_log = AllocLog();
    M* m = create(4, 6);
    const std::vector<size_t> want = {sizeof(M), 4 * sizeof(E*), 6 * sizeof(E), 6 * sizeof(E), 6 * sizeof(E), 6 * sizeof(E)};
    EXPECT_EQ(g_log.sizes, hooked ? want : std::vector<size_t>());
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 6; ++c) {
            EXPECT_EQ(m->data[r][c], E(0));
            m->data[r][c] = E(r * 7 + c + 1);
        }
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 6; ++c)
            ASSERT_EQ(m->data[r][c], E(r * 7 + c + 1)) << r << "," << c;
    destroy(m);
    EXPECT_EQ(g_log.live, 0);
    for (auto [rows, cols] : {std::pair<int, int>{0, 5}, {3, 0}, {4, -2}}) {
        M* e = create(rows, cols);
        EXPECT_TRUE(e->rows == rows && e->cols == cols && e->data == nullptr) << rows << "x" << cols;
        destroy(e);
    }
    g_log = AllocLog();
    g_log.failAt = 0;
    M* refused = create(2, 2);
    EXPECT_EQ(refused == nullptr, hooked);
    destroy(refused); // null is a no-op
}

// Vector or one-block matrix: header and one block of `count` elements; a
// refused data block gives null and the header back.
template <class M, class Create>
void checkBlock(Create create, void (*destroy)(M*), int count)
{
    using E = std::remove_pointer_t<decltype(M::data)>;
    g_log = AllocLog();
    M* m = create(false);
    EXPECT_EQ(g_log.sizes, (std::vector<size_t>{sizeof(M), count * sizeof(E)}));
    EXPECT_EQ(std::vector<E>(m->data, m->data + count), std::vector<E>(count, E(0)));
    m->data[count - 1] = E(1);
    destroy(m);
    EXPECT_EQ(g_log.frees, 2);
    M* e = create(true);
    EXPECT_EQ(e->data, nullptr);
    destroy(e);
    for (int fail : {0, 1}) {
        g_log = AllocLog();
        g_log.failAt = fail;
        EXPECT_TRUE(create(false) == nullptr && g_log.live == 0) << "refused allocation " << fail;
    }
    destroy(nullptr);
}

} // namespace

TEST(Matrix, CreatorsAllocateThroughTheHooks)
{
    doa_register_malloc(reinterpret_cast<void*>(&countingAlloc), reinterpret_cast<void*>(&countingFree));
    checkRows(create_mat2d_fp32, destroy_mat2d_fp32, true);
    checkRows(create_mat2d_int8, destroy_mat2d_uint8, true);
    checkRows(create_mat2d_fp64, destroy_mat2d_fp64, true);
    checkRows(create_mat2d_int32, destroy_mat2d_int32, true);
    checkRows(create_mat2d_short, destroy_mat2d_short, true);
    checkRows(create_mat2d_fp32_sysmem, destroy_mat2d_fp32_sysmem, false);
    checkBlock<vec_fp32>([](bool empty) { return create_vec_fp32(empty ? 0 : 37); }, destroy_vec_fp32, 37);
    checkBlock<vec_fp64>([](bool empty) { return create_vec_fp64(empty ? -3 : 5); }, destroy_vec_fp64, 5);
    checkBlock<vec_int32>([](bool empty) { return create_vec_int32(empty ? 0 : 8); }, destroy_vec_int32, 8);
    checkBlock<mat1d_fp32>([](bool empty) { return create_mat1d_fp32(3, empty ? -2 : 7); }, destroy_mat1d_fp32, 21);
    checkBlock<mat1d_uint8>([](bool empty) { return create_mat1d_uint8(empty ? 0 : 5, 3); }, destroy_mat1d_uint8, 15);
    checkBlock<mat1d_uint32>([](bool empty) { return create_mat1d_uint32(2, empty ? 0 : 3); }, destroy_mat1d_uint32, 6);
    checkBlock<mat1d_short>([](bool empty) { return create_mat1d_short(3, empty ? -1 : 5); }, destroy_mat1d_short, 15);

    // FFTW containers: only the header from the hooks, elements aligned for FFTW, matrix rows zeroed.
    g_log = AllocLog();
    mat2d_fftwfcplx* m = create_mat2d_fftwfcplx(3, 513);
    vec_fftwfcplx* v = create_vec_fftwfcplx(1025);
    EXPECT_EQ(g_log.sizes, (std::vector<size_t>{sizeof(mat2d_fftwfcplx), sizeof(vec_fftwfcplx)}));
    for (fftwf_complex* row : {m->data[0], m->data[1], m->data[2], v->data})
        EXPECT_EQ(fftwf_alignment_of(row[0]), 0);
    for (int i = 0; i < 3 * 513; ++i)
        ASSERT_TRUE(m->data[i / 513][i % 513][0] == 0.0f && m->data[i / 513][i % 513][1] == 0.0f) << i;
    v->data[1024][0] = 1.0f;
    destory_mat2d_fftwfcplx(m), destory_vec_fftwfcplx(v);
    EXPECT_EQ(g_log.frees, 2);
    g_log.failAt = g_log.allocs;
    EXPECT_EQ(create_vec_fftwfcplx(2), nullptr);
    doa_register_malloc(reinterpret_cast<void*>(&std::malloc), reinterpret_cast<void*>(&std::free));
    // Counted as unsigned: 70000 x 60000 overflows int32.
    mat2d_fp32 big{70000, 60000, nullptr};
    mat1d_fp32 big1{70000, 60000, nullptr};
    EXPECT_EQ(mat2d_fp32_size(&big), 4200000000u);
    EXPECT_EQ(mat1d_fp32_size(&big1), 4200000000u);
}

// With the system allocator, rows large enough to give whole pages back come
// out zero although the heap hands out memory written before, every element
// stays writable, and rows start on 64-byte lines (the kernels' block size).
TEST(Matrix, LargeRowsComeBackZeroFromARecycledHeap)
{
    for (int pass = 0; pass < 3; ++pass) {
        mat2d_fp32* m = create_mat2d_fp32(8, 6000); // 24 KB rows: heap, not mapped
        for (int r = 0; r < 8; ++r)
            for (int c = 0; c < 6000; ++c) {
                ASSERT_EQ(m->data[r][c], 0.0f) << pass << " " << r << "," << c;
                m->data[r][c] = 1.0f + r;
            }
        std::vector<float> keep(100, 2.0f); // a neighbour allocated after the rows
        for (int r = 0; r < 8; ++r)
            ASSERT_TRUE(std::count(m->data[r], m->data[r] + 6000, 1.0f + r) == 6000 && reinterpret_cast<uintptr_t>(m->data[r]) % 64 == 0) << r;
        destroy_mat2d_fp32(m);
        ASSERT_EQ(std::count(keep.begin(), keep.end(), 2.0f), 100);
    }
}
