#include "captions/whisper/alignment.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace plim::whisper {

void addHeadScores(Matrix& scores, const Matrix& head, const TokenSpan& span)
{
    const int rows = span.toRow - span.fromRow, cols = span.toFrame - span.fromFrame;
    if (rows <= 0 || cols <= 0)
        return;
    if (scores.rows != rows || scores.cols != cols)
        scores = Matrix{rows, cols, std::vector<float>(size_t(rows) * size_t(cols), 0.f)};
    auto weight = [&](int r, int c) { return double(head.row(span.fromRow + r)[span.fromFrame + c]); };
    std::vector<float> normal(scores.data.size()), window;
    for (int c = 0; c < cols; ++c) {
        double mean = 0, spread = 0;
        for (int r = 0; r < rows; ++r)
            mean += weight(r, c);
        mean /= rows;
        for (int r = 0; r < rows; ++r)
            spread += (weight(r, c) - mean) * (weight(r, c) - mean);
        spread = std::sqrt(spread / rows);
        for (int r = 0; r < rows; ++r)
            normal[size_t(r) * size_t(cols) + size_t(c)] = spread > 1e-10 ? float((weight(r, c) - mean) / spread) : 0.f;
    }
    // The median of a centred window of frames, the edge frames repeated past the ends.
    const int half = alignmentFilterWidth / 2;
    for (int r = 0; r < rows; ++r) {
        const float* in = normal.data() + size_t(r) * size_t(cols);
        float* out = scores.row(r);
        for (int c = 0; c < cols; ++c) {
            window.clear();
            for (int k = c - half; k <= c + half; ++k)
                window.push_back(in[std::clamp(k, 0, cols - 1)]);
            std::nth_element(window.begin(), window.begin() + half, window.end());
            out[c] += window[size_t(half)];
        }
    }
}

std::vector<std::pair<int, int>> warpPath(const Matrix& cost)
{
    const int rows = cost.rows, cols = cost.cols;
    if (rows <= 0 || cols <= 0)
        return {};
    // total: the cheapest way to reach each cell; step: the move that did it.
    constexpr double far = std::numeric_limits<double>::infinity();
    enum Step : unsigned char { diagonal, down, right };
    std::vector<double> total(size_t(rows) * size_t(cols), far);
    std::vector<Step> step(total.size(), diagonal);
    auto at = [&](int r, int c) { return size_t(r) * size_t(cols) + size_t(c); };
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            double best = r == 0 && c == 0 ? 0 : far;
            // On the edges only one move leads in (also when the costs are not numbers).
            step[at(r, c)] = r == 0 ? right : c == 0 ? down : diagonal;
            if (r > 0 && c > 0 && total[at(r - 1, c - 1)] < best)
                best = total[at(r - 1, c - 1)], step[at(r, c)] = diagonal;
            if (r > 0 && total[at(r - 1, c)] < best)
                best = total[at(r - 1, c)], step[at(r, c)] = down;
            if (c > 0 && total[at(r, c - 1)] < best)
                best = total[at(r, c - 1)], step[at(r, c)] = right;
            total[at(r, c)] = best + double(cost.row(r)[c]);
        }
    std::vector<std::pair<int, int>> path;
    for (int r = rows - 1, c = cols - 1;;) {
        path.emplace_back(r, c);
        if (r == 0 && c == 0)
            break;
        Step s = step[at(r, c)];
        r -= s != right;
        c -= s != down;
    }
    std::reverse(path.begin(), path.end());
    return path;
}

std::vector<int> tokenStartFrames(const Matrix& scores)
{
    Matrix cost = scores;
    for (float& v : cost.data)
        v = -v;
    std::vector<int> starts(size_t(std::max(0, scores.rows)) + 1, -1);
    for (auto [r, c] : warpPath(cost))
        if (starts[size_t(r)] < 0)
            starts[size_t(r)] = c;
    starts.back() = scores.cols;
    return starts;
}

} // namespace plim::whisper
