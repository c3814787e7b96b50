// One frame of the planar engines as a whole: what the per-bin gains do to
// the image, and that every bin's spectrum is kept whatever the band.
#include <gtest/gtest.h>

#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/akudoaquantizev4_p.h"
#include "support/akudoagrid.h"

namespace {

template <class Engine>
std::vector<float> fftMeanRows(Engine& engine)
{
    std::vector<float> all;
    const mat2d_fp32* m = engine.getFFTMean();
    for (int r = 0; r < m->rows; ++r)
        all.insert(all.end(), m->data[r], m->data[r] + m->cols);
    return all;
}

// A second frame images as the first; gains of 1/4 on every bin scale the
// summed power by exactly 1/4, so the amplitude image halves exactly; and a
// narrow band leaves every other bin's spectrum as a full band computes it.
template <class Engine>
void checkFrame(const StCamCfg& base, const char* name)
{
    SCOPED_TRACE(name);
    const AkuMat frame = akugrid_frame(base, {akugrid_far_source(base, 5, 4)});
    AkuImager<Engine> unit(base);
    const std::vector<float> ref = unit.image(frame.get());
    EXPECT_EQ(unit.image(frame.get()), ref); // nothing carried over from a frame
    StCamCfg quarter = base;
    std::fill(std::begin(quarter.micSensitivity), std::end(quarter.micSensitivity), 0.25f);
    AkuImager<Engine> scaled(quarter);
    const std::vector<float> half = scaled.image(frame.get());
    ASSERT_EQ(ref.size(), half.size());
    int nonzero = 0;
    for (size_t p = 0; p < ref.size(); ++p) {
        ASSERT_EQ(half[p], 0.5f * ref[p]) << p;
        nonzero += ref[p] > 0.0f;
    }
    EXPECT_GT(nonzero, 0);

    AkuImager<Engine> narrow(base, 30000, 31000);
    narrow.image(frame.get());
    EXPECT_EQ(fftMeanRows(narrow.engine), fftMeanRows(unit.engine));
}

TEST(PlanarFrame, GainsScaleTheImageAndEveryBinKeepsItsSpectrum)
{
    StCamCfg v3 = akugrid_camera(16, 12, 8, 256);
    checkFrame<AKUDoaQuantizeV3>(v3, "V3");
    v3.compactSteering = true;
    checkFrame<AKUDoaQuantizeV3>(v3, "V3 compact");
    v3.compactSteering = false;
    v3.freqAverage = true;
    checkFrame<AKUDoaQuantizeV3>(v3, "V3 averaged");
    checkFrame<AKUDoaQuantizeV4>(akugrid_camera(16, 12, 8, 256, 4), "V4");
}

} // namespace
