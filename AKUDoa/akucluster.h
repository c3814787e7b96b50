#ifndef AKUDOA_AKUCLUSTER_H
#define AKUDOA_AKUCLUSTER_H

// One-dimensional k-means with integer centres, for short lists such as the
// frequency-bin indices that carry target energy. Stateless: every call
// works on copies of its inputs and returns a fresh result, so one object
// may be used from several threads.

#include <vector>

#include "AKUDoa/base/akudoaexport.h"

class AKUDOA_EXPORT AKUCluster {
public:
    AKUCluster() = default;

    // |a - b| computed in integers.
    static float distance(int a, int b);
    // Sum with two's-complement wrap-around; 0 when empty.
    static int sum(std::vector<int> v);
    // Mean truncated toward zero; 0 when empty.
    static int center(std::vector<int> v);
    // Index of the first smallest element; 0 for fewer than two elements.
    static int minIdx(std::vector<float> d);
    static bool vec_equal(std::vector<int> a, std::vector<int> b);

    // One inner vector per centre, in centre order, holding the values
    // nearest to that centre in input order (empty ones included). On equal
    // distances the lower centre index wins.
    static std::vector<std::vector<int>> group(std::vector<int> data, std::vector<int> centres);

    // Starts from the first k values as centres and regroups until no
    // centre changes (an empty cluster's centre becomes 0). Empty result when
    // k exceeds the data count or k <= 0.
    static std::vector<std::vector<int>> doKCluster(std::vector<int> data, int k);
};

#endif
