#pragma once
// Word times from where the decoder looked: each text token's attention over the audio
// frames (20 ms each) in the upper half of the decoder's layers. Every head's weights are
// made comparable across tokens (each frame's weights put to zero mean and unit spread
// over the tokens), smoothed along time with a median filter and summed over the heads;
// the path of least cost through tokens x frames that only ever moves on (dynamic time
// warping) then gives each token the frame where it starts.

#include "captions/whisper/model.h"

#include <utility>
#include <vector>

namespace plim::whisper {

inline constexpr double audioFrameSeconds = 0.02;
inline constexpr int alignmentFilterWidth = 7;

// The rows (token positions in the decoder's input) and audio frames one stretch of text covers.
struct TokenSpan {
    int fromRow = 0, toRow = 0, fromFrame = 0, toFrame = 0;
};

// Adds one head's weights (tokens x frames, as the decoder hands them out) over `span`,
// normalised and median-filtered, into `scores` (span rows x span frames; sized on first use).
void addHeadScores(Matrix& scores, const Matrix& head, const TokenSpan& span);

// The cheapest path from the top-left cell to the bottom-right one, stepping right, down
// or diagonally down-right, as (row, column) pairs in order. Ties go to the diagonal,
// then down, then right. Empty when the matrix is.
std::vector<std::pair<int, int>> warpPath(const Matrix& cost);

// For each row of the summed scores, the column where its token starts along the path
// through the negated scores, then the column count: rising, the first 0.
std::vector<int> tokenStartFrames(const Matrix& scores);

} // namespace plim::whisper
