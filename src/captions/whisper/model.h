#pragma once
// The Whisper network: an encoder that turns a 30-second window of log-mel frames into
// audio states, and a decoder that predicts the next token from the tokens so far and
// those states. The encoder splits its rows between as many threads of its own as OpenBLAS
// has, each running its products single-threaded; the decoder's products run through
// OpenBLAS on its threads, the passes between them (softmax, GELU, layer norm) split over as
// many. Not thread-safe: one transcription at a time.

#include "base/error.h"
#include "captions/whisper/checkpoint.h"

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace plim::whisper {

struct Dims {
    int mels = 80, audioCtx = 1500, audioState = 512, audioHeads = 8, audioLayers = 6;
    int vocab = 51865, textCtx = 448, textState = 512, textHeads = 8, textLayers = 6;
    bool operator==(const Dims&) const = default;
};

// Reads the sizes from a checkpoint's "dims" entry.
Result<Dims> dimsOf(const Checkpoint& checkpoint);

// Random weights of the right shapes (normal, small), for measuring speed.
Checkpoint randomCheckpoint(const Dims& dims, uint32_t seed);

// Row-major float matrix.
struct Matrix {
    int rows = 0, cols = 0;
    std::vector<float> data;
    float* row(int r) { return data.data() + size_t(r) * size_t(cols); }
    const float* row(int r) const { return data.data() + size_t(r) * size_t(cols); }
};

class Model {
public:
    // Takes the weights out of the checkpoint; fails with the name of any missing or misshapen one.
    static Result<Model> create(Checkpoint&& checkpoint);

    const Dims& dims() const { return m_dims; }
    int windowFrames() const { return 2 * m_dims.audioCtx; }

    // mel: `dims().mels` rows of windowFrames() frames. Returns audioCtx x audioState.
    Matrix encode(const Matrix& mel) const;

    // Starts a new sequence over these audio states: the cross-attention keys and values
    // are computed once here, and the self-attention cache is emptied.
    void beginSequence(const Matrix& audio);
    // Empties the self-attention cache, keeping the audio states (for another try at the same window).
    void restart() { m_fed = 0; }
    // Feeds `tokens` after the ones already fed; returns one row of logits per token when
    // `allRows`, else only the last token's row. The sequence may not exceed textCtx.
    // `crossWeights`, when given, is handed the attention weights over the audio of each
    // head in the upper half of the layers, layer by layer: tokens x audioCtx, rows summing to 1.
    Matrix decode(std::span<const int> tokens, bool allRows = false,
        const std::function<void(const Matrix&)>& crossWeights = {});
    int fed() const { return m_fed; }

    struct Linear {
        Tensor weight;             // out x in
        std::vector<float> bias;   // out, or empty
    };
    struct Norm {
        std::vector<float> weight, bias;
    };
    struct Attention {
        Linear qkv;                // query, key and value stacked: 3 state x state (the key has no bias: zeros)
        Linear out;
    };
    struct Block {
        Norm attnLn;
        Attention attn;
        Norm crossLn;
        Attention cross;
        bool hasCross = false;
        Norm mlpLn;
        Linear fc1, fc2;
    };

private:
    Dims m_dims;
    Linear m_conv1, m_conv2; // weights as out x (3 x in): the three taps, each across all inputs
    Tensor m_audioPositions;
    std::vector<Block> m_encoder, m_decoder;
    Norm m_encoderLn, m_decoderLn;
    Tensor m_tokenEmbedding, m_textPositions;

    // Per decoder layer: self-attention cache (textCtx x state) and the audio's keys and
    // values side by side (audioCtx x 2 state).
    std::vector<Matrix> m_selfK, m_selfV, m_crossKV;
    int m_fed = 0;
    // Working matrices kept from call to call: fresh pages for every product's output
    // are slow to fault in, slower than much of the arithmetic.
    mutable std::array<Matrix, 8> m_scratch;
    mutable std::vector<Matrix> m_attentionScratch; // one per encoder thread
};

} // namespace plim::whisper
