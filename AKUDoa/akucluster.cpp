#include "AKUDoa/akucluster.h"

#include <cstdint>
#include <cstdlib>

float AKUCluster::distance(int a, int b) {
    // Difference in 64 bits so that extreme inputs cannot overflow.
    const int64_t d = static_cast<int64_t>(a) - static_cast<int64_t>(b);
    return static_cast<float>(d < 0 ? -d : d);
}

int AKUCluster::sum(std::vector<int> v) {
    uint32_t s = 0;  // unsigned: wraps instead of overflowing
    for (int x : v) s += static_cast<uint32_t>(x);
    return static_cast<int>(s);
}

int AKUCluster::center(std::vector<int> v) {
    if (v.empty()) return 0;
    return sum(v) / static_cast<int>(v.size());
}

int AKUCluster::minIdx(std::vector<float> d) {
    int idx = 0;
    if (d.size() < 2) return idx;
    float m = d[0];
    for (size_t i = 1; i < d.size(); ++i) {
        if (d[i] < m) {
            m = d[i];
            idx = static_cast<int>(i);
        }
    }
    return idx;
}

bool AKUCluster::vec_equal(std::vector<int> a, std::vector<int> b) { return a == b; }

std::vector<std::vector<int>> AKUCluster::group(std::vector<int> data, std::vector<int> centres) {
    std::vector<std::vector<int>> result;
    if (centres.empty()) return result;
    std::vector<int> label(data.size(), 0);
    std::vector<float> dist(centres.size());
    for (size_t i = 0; i < data.size(); ++i) {
        for (size_t g = 0; g < centres.size(); ++g) dist[g] = distance(data[i], centres[g]);
        label[i] = minIdx(dist);
    }
    result.reserve(centres.size());
    for (size_t g = 0; g < centres.size(); ++g) {
        std::vector<int> members;
        for (size_t i = 0; i < data.size(); ++i)
            if (label[i] == static_cast<int>(g)) members.push_back(data[i]);
        result.push_back(std::move(members));
    }
    return result;
}

std::vector<std::vector<int>> AKUCluster::doKCluster(std::vector<int> data, int k) {
    if (k > static_cast<int>(data.size())) return {};
    std::vector<int> centres;
    if (k > 0) centres.assign(data.begin(), data.begin() + k);
    // No iteration limit: the loop ends on the first round that leaves every
    // integer centre unchanged (inputs are short lists of bin indices).
    for (;;) {
        std::vector<std::vector<int>> result = group(data, centres);
        std::vector<int> next;
        next.reserve(result.size());
        for (const std::vector<int>& c : result) next.push_back(center(c));
        if (vec_equal(next, centres)) return result;
        centres = std::move(next);
    }
}
