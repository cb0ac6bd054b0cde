#include "captions/whisper/model.h"

#include "captions/whisper/vector_math.h"

#include <algorithm>
#include <barrier>
#include <cblas.h>
#include <cmath>
#include <limits>
#include <mutex>
#include <thread>

namespace plim::whisper {

namespace {

Matrix matrix(int rows, int cols)
{
    return Matrix{rows, cols, std::vector<float>(size_t(rows) * size_t(cols), 0.f)};
}

// `m` as a rows x cols matrix of unspecified values, its storage kept when large enough.
Matrix& reuse(Matrix& m, int rows, int cols)
{
    m.rows = rows;
    m.cols = cols;
    if (m.data.size() < size_t(rows) * size_t(cols))
        m.data.resize(size_t(rows) * size_t(cols));
    return m;
}

// Runs f(from, to) over [0, n) in as many slices as OpenBLAS has threads, this thread
// taking the first. Small jobs stay on this thread.
template<typename F>
void inSlices(int n, long work, F&& f)
{
    const int slices = std::clamp(openblas_get_num_threads(), 1, 16);
    if (slices == 1 || n < 2 || work < 200'000) {
        f(0, n);
        return;
    }
    std::vector<std::jthread> helpers;
    for (int i = 1; i < slices; ++i)
        helpers.emplace_back([&f, n, slices, i] { f(int(long(n) * i / slices), int(long(n) * (i + 1) / slices)); });
    f(0, int(n / slices));
}

// y = x times the transpose of w (out x in) + beta y, each with its own row stride.
void product(int rows, int out, int in, const float* x, int ldx, const float* w, float* y, int ldy, float beta = 0.f,
    int ldw = 0)
{
    if (!ldw)
        ldw = in;
    if (rows == 1)
        cblas_sgemv(CblasRowMajor, CblasNoTrans, out, in, 1.f, w, ldw, x, 1, beta, y, 1);
    else
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, rows, out, in, 1.f, x, ldx, w, ldw, beta, y, ldy);
}

// Rows [from, to) of y plus `bias`, one value a column.
void addBias(Matrix& y, const float* bias, int from, int to)
{
    inSlices(to - from, long(to - from) * y.cols, [&](int first, int last) {
        for (int r = from + first; r < from + last; ++r) {
            float* row = y.row(r);
            for (int c = 0; c < y.cols; ++c)
                row[c] += bias[c];
        }
    });
}

// y = x times the transpose of `out` rows of l's weights from `firstRow` on, plus their bias.
void linear(const Matrix& x, const Model::Linear& l, Matrix& y, int out = -1, int firstRow = 0)
{
    const int in = int(l.weight.dim(1));
    if (out < 0)
        out = int(l.weight.dim(0));
    reuse(y, x.rows, out);
    product(x.rows, out, in, x.data.data(), x.cols, l.weight.data.data() + size_t(firstRow) * size_t(in), y.data.data(),
        out);
    if (!l.bias.empty())
        addBias(y, l.bias.data() + firstRow, 0, y.rows);
}

// Rows [from, to) of x += y times the transpose of l's weights, plus its bias: a residual
// step without a copy.
void addLinear(Matrix& x, const Matrix& y, const Model::Linear& l, int from = 0, int to = -1)
{
    if (to < 0)
        to = x.rows;
    addBias(x, l.bias.data(), from, to);
    product(to - from, x.cols, y.cols, y.row(from), y.cols, l.weight.data.data(), x.row(from), x.cols, 1.f);
}

// Rows [from, to) of y, already x's size, are those of x normalised.
void layerNorm(const Matrix& x, const Model::Norm& n, Matrix& y, int from, int to)
{
    inSlices(to - from, long(to - from) * x.cols, [&](int first, int last) {
        for (int r = from + first; r < from + last; ++r) {
            const float* in = x.row(r);
            float* out = y.row(r);
            double mean = 0, var = 0;
            for (int c = 0; c < x.cols; ++c)
                mean += in[c];
            mean /= x.cols;
            for (int c = 0; c < x.cols; ++c)
                var += (in[c] - mean) * (in[c] - mean);
            float inv = float(1.0 / std::sqrt(var / x.cols + 1e-5));
            for (int c = 0; c < x.cols; ++c)
                out[c] = (in[c] - float(mean)) * inv * n.weight[size_t(c)] + n.bias[size_t(c)];
        }
    });
}

void layerNorm(const Matrix& x, const Model::Norm& n, Matrix& y)
{
    reuse(y, x.rows, x.cols);
    layerNorm(x, n, y, 0, x.rows);
}

Matrix layerNorm(const Matrix& x, const Model::Norm& n)
{
    Matrix y = matrix(x.rows, x.cols);
    layerNorm(x, n, y);
    return y;
}

// Rows [first, first + rows) of x, each with `bias` added, through GELU; then `after` added when given.
void biasGelu(Matrix& x, int first, int rows, const std::vector<float>& bias, const float* after = nullptr)
{
    inSlices(rows, long(rows) * x.cols * 8, [&](int from, int to) {
        for (int r = first + from; r < first + to; ++r) {
            float* row = x.row(r);
            for (int c = 0; c < x.cols; ++c)
                row[c] += bias[size_t(c)];
            gelu(row, size_t(x.cols));
            if (after)
                for (int c = 0; c < x.cols; ++c)
                    row[c] += after[size_t(r - first) * size_t(x.cols) + size_t(c)];
        }
    });
}

// Multi-head attention of the query rows over the first `keys` rows of k and v, each
// given by its first element and row stride; the heads' outputs side by side in `out`.
// With `causalBase` >= 0, query row i sees keys up to causalBase + i only. `weights`, when
// given, is handed each head's attention weights (rows x keys). Query rows go in blocks
// whose scores stay in the processor's cache between the two products and the softmax.
struct Operand {
    const float* data;
    int stride;
};
void attend(int rows, Operand q, Operand k, Operand v, int keys, int heads, int dh, float* out, int ldo,
    Matrix& scratch, int causalBase = -1, const std::function<void(const Matrix&)>* weights = nullptr)
{
    const bool handOut = weights && *weights;
    constexpr int blockFloats = 96 * 1024; // 384 KB of scores: well within a second-level cache
    const int block = handOut ? rows : std::min(rows, std::max(16, blockFloats / std::max(1, keys)));
    std::vector<float>& scores = reuse(scratch, block, keys).data;
    std::vector<float> sums(static_cast<size_t>(block));
    const float scale = 1.f / std::sqrt(float(dh));
    for (int first = 0; first < rows; first += block) {
        const int n = std::min(block, rows - first);
        const float* qb = q.data + size_t(first) * size_t(q.stride);
        float* ob = out + size_t(first) * size_t(ldo);
        for (int h = 0; h < heads; ++h) {
            if (n == 1) // one token: products with a vector cost less to start
                cblas_sgemv(CblasRowMajor, CblasNoTrans, keys, dh, scale, k.data + h * dh, k.stride, qb + h * dh, 1,
                    0.f, scores.data(), 1);
            else
                cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, n, keys, dh, scale, qb + h * dh, q.stride,
                    k.data + h * dh, k.stride, 0.f, scores.data(), keys);
            // Softmax left unnormalised; each output row is divided by its sum after the product.
            inSlices(n, long(n) * keys * 4, [&](int from, int to) {
                for (int r = from; r < to; ++r) {
                    float* s = scores.data() + size_t(r) * size_t(keys);
                    int visible = causalBase >= 0 ? std::min(keys, causalBase + first + r + 1) : keys;
                    sums[size_t(r)] = expShifted(s, size_t(visible), largest(s, size_t(visible)));
                    std::fill(s + visible, s + keys, 0.f);
                }
            });
            if (handOut) {
                Matrix w = matrix(n, keys);
                for (int r = 0; r < n; ++r)
                    for (int c = 0; c < keys; ++c)
                        w.row(r)[c] = scores[size_t(r) * size_t(keys) + size_t(c)] / sums[size_t(r)];
                (*weights)(w);
            }
            float* o = ob + h * dh;
            if (n == 1)
                cblas_sgemv(CblasRowMajor, CblasTrans, keys, dh, 1.f, v.data + h * dh, v.stride, scores.data(), 1, 0.f,
                    o, 1);
            else
                cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, n, dh, keys, 1.f, scores.data(), keys,
                    v.data + h * dh, v.stride, 0.f, o, ldo);
            for (int r = 0; r < n; ++r) {
                float inv = 1.f / sums[size_t(r)];
                for (int c = 0; c < dh; ++c)
                    o[size_t(r) * size_t(ldo) + size_t(c)] *= inv;
            }
        }
    }
}

// Rows [from, to) of the block's MLP as a residual step; `norm` and `hidden`, already of
// their sizes (x's rows, and 4 state), are scratch.
void mlp(Matrix& x, const Model::Block& b, Matrix& norm, Matrix& hidden, int from, int to)
{
    layerNorm(x, b.mlpLn, norm, from, to);
    product(to - from, hidden.cols, x.cols, norm.row(from), norm.cols, b.fc1.weight.data.data(), hidden.row(from),
        hidden.cols);
    biasGelu(hidden, from, to - from, b.fc1.bias);
    addLinear(x, hidden, b.fc2, from, to);
}

void mlp(Matrix& x, const Model::Block& b, Matrix& norm, Matrix& hidden)
{
    reuse(norm, x.rows, x.cols);
    reuse(hidden, x.rows, int(b.fc1.weight.dim(0)));
    mlp(x, b, norm, hidden, 0, x.rows);
}

// While one lives, OpenBLAS runs each product on the thread that asks for it, so that
// several threads can each run their own; `threads()` is the count it had before. The
// count is process-wide: the first to come sets it, the last to go puts it back.
class OwnThreads {
public:
    OwnThreads()
    {
        std::lock_guard lock(s_mutex);
        if (s_users++ == 0) {
            s_threads = std::clamp(openblas_get_num_threads(), 1, 16);
            openblas_set_num_threads(1);
        }
        m_threads = s_threads;
    }
    ~OwnThreads()
    {
        std::lock_guard lock(s_mutex);
        if (--s_users == 0)
            openblas_set_num_threads(s_threads);
    }
    OwnThreads(const OwnThreads&) = delete;
    OwnThreads& operator=(const OwnThreads&) = delete;
    int threads() const { return m_threads; }

private:
    int m_threads = 1;
    static inline std::mutex s_mutex;
    static inline int s_users = 0, s_threads = 1;
};

// Whisper's fixed audio positions: sines then cosines over geometric timescales.
Tensor sinusoids(int length, int channels)
{
    Tensor t{{length, channels}, std::vector<float>(size_t(length) * size_t(channels))};
    int half = channels / 2;
    double step = std::log(10000.0) / (half - 1);
    for (int p = 0; p < length; ++p)
        for (int i = 0; i < half; ++i) {
            double a = p * std::exp(-step * i);
            t.data[size_t(p) * size_t(channels) + size_t(i)] = float(std::sin(a));
            t.data[size_t(p) * size_t(channels) + size_t(half + i)] = float(std::cos(a));
        }
    return t;
}

struct Taker {
    Checkpoint& c;
    std::string missing;

    Tensor take(const std::string& name, std::vector<int64_t> shape)
    {
        auto it = c.weights.find(name);
        if (it == c.weights.end() || it->second.shape != shape) {
            if (missing.empty()) {
                std::string want;
                for (auto n : shape)
                    want += (want.empty() ? "" : " x ") + std::to_string(n);
                missing = it == c.weights.end() ? name + " is missing" : name + " is not " + want;
            }
            size_t n = 1;
            for (auto s : shape)
                n *= size_t(std::max<int64_t>(0, s));
            return Tensor{shape, std::vector<float>(n)};
        }
        Tensor t = std::move(it->second);
        c.weights.erase(it);
        return t;
    }
    std::vector<float> vec(const std::string& name, int n) { return take(name, {n}).data; }
    Model::Linear lin(const std::string& name, int out, int in, bool bias = true)
    {
        Model::Linear l{take(name + ".weight", {out, in}), {}};
        if (bias)
            l.bias = vec(name + ".bias", out);
        return l;
    }
    Model::Norm norm(const std::string& name, int n) { return {vec(name + ".weight", n), vec(name + ".bias", n)}; }
    Model::Attention attention(const std::string& name, int n)
    {
        Model::Linear qkv{Tensor{{3 * n, n}, {}}, {}};
        for (const char* part : {".query", ".key", ".value"}) {
            Model::Linear l = lin(name + part, n, n, part != std::string(".key"));
            qkv.weight.data.insert(qkv.weight.data.end(), l.weight.data.begin(), l.weight.data.end());
            l.bias.resize(size_t(n), 0.f);
            qkv.bias.insert(qkv.bias.end(), l.bias.begin(), l.bias.end());
        }
        return {std::move(qkv), lin(name + ".out", n, n)};
    }
    Model::Block block(const std::string& name, int n, bool cross)
    {
        Model::Block b;
        b.attnLn = norm(name + ".attn_ln", n);
        b.attn = attention(name + ".attn", n);
        if (cross) {
            b.hasCross = true;
            b.crossLn = norm(name + ".cross_attn_ln", n);
            b.cross = attention(name + ".cross_attn", n);
        }
        b.mlpLn = norm(name + ".mlp_ln", n);
        b.fc1 = lin(name + ".mlp.0", 4 * n, n);
        b.fc2 = lin(name + ".mlp.2", n, 4 * n);
        return b;
    }
};

// Every weight's name and shape, in the checkpoint's naming.
std::vector<std::pair<std::string, std::vector<int64_t>>> weightShapes(const Dims& d)
{
    std::vector<std::pair<std::string, std::vector<int64_t>>> w;
    auto lin = [&](const std::string& n, int out, int in, bool bias = true) {
        w.push_back({n + ".weight", {out, in}});
        if (bias)
            w.push_back({n + ".bias", {out}});
    };
    auto norm = [&](const std::string& n, int s) {
        w.push_back({n + ".weight", {s}});
        w.push_back({n + ".bias", {s}});
    };
    auto block = [&](const std::string& n, int s, bool cross) {
        for (std::string a : cross ? std::vector<std::string>{"attn", "cross_attn"} : std::vector<std::string>{"attn"}) {
            norm(n + "." + a + "_ln", s);
            lin(n + "." + a + ".query", s, s);
            lin(n + "." + a + ".key", s, s, false);
            lin(n + "." + a + ".value", s, s);
            lin(n + "." + a + ".out", s, s);
        }
        norm(n + ".mlp_ln", s);
        lin(n + ".mlp.0", 4 * s, s);
        lin(n + ".mlp.2", s, 4 * s);
    };
    w.push_back({"encoder.conv1.weight", {d.audioState, d.mels, 3}});
    w.push_back({"encoder.conv1.bias", {d.audioState}});
    w.push_back({"encoder.conv2.weight", {d.audioState, d.audioState, 3}});
    w.push_back({"encoder.conv2.bias", {d.audioState}});
    for (int i = 0; i < d.audioLayers; ++i)
        block("encoder.blocks." + std::to_string(i), d.audioState, false);
    norm("encoder.ln_post", d.audioState);
    w.push_back({"decoder.token_embedding.weight", {d.vocab, d.textState}});
    w.push_back({"decoder.positional_embedding", {d.textCtx, d.textState}});
    for (int i = 0; i < d.textLayers; ++i)
        block("decoder.blocks." + std::to_string(i), d.textState, true);
    norm("decoder.ln", d.textState);
    return w;
}

} // namespace

Result<Dims> dimsOf(const Checkpoint& c)
{
    Dims d;
    std::pair<const char*, int*> fields[] = {{"n_mels", &d.mels}, {"n_audio_ctx", &d.audioCtx},
        {"n_audio_state", &d.audioState}, {"n_audio_head", &d.audioHeads}, {"n_audio_layer", &d.audioLayers},
        {"n_vocab", &d.vocab}, {"n_text_ctx", &d.textCtx}, {"n_text_state", &d.textState},
        {"n_text_head", &d.textHeads}, {"n_text_layer", &d.textLayers}};
    for (auto [name, field] : fields) {
        auto it = c.dims.find(name);
        if (it == c.dims.end() || it->second <= 0 || it->second > 1'000'000)
            return fail(std::string("its \u201cdims\u201d entry has no usable ") + name);
        *field = int(it->second);
    }
    if (d.audioCtx != 1500)
        return fail("its audio context is " + std::to_string(d.audioCtx) + " frames, not the 1500 of a 30-second window");
    if (d.audioState % d.audioHeads || d.textState % d.textHeads || d.audioState % 2)
        return fail("its widths do not split evenly between its attention heads");
    if (d.vocab < 51864 - 50256 + 10)
        return fail("its vocabulary is too small to hold Whisper's special tokens");
    return d;
}

Checkpoint randomCheckpoint(const Dims& d, uint32_t seed)
{
    Checkpoint c;
    c.dims = {{"n_mels", d.mels}, {"n_audio_ctx", d.audioCtx}, {"n_audio_state", d.audioState},
        {"n_audio_head", d.audioHeads}, {"n_audio_layer", d.audioLayers}, {"n_vocab", d.vocab},
        {"n_text_ctx", d.textCtx}, {"n_text_state", d.textState}, {"n_text_head", d.textHeads},
        {"n_text_layer", d.textLayers}};
    uint64_t state = seed * 0x9E3779B97F4A7C15ull + 1;
    for (auto& [name, shape] : weightShapes(d)) {
        Tensor t{shape, {}};
        size_t n = 1;
        for (auto s : shape)
            n *= size_t(s);
        bool norm = name.find("_ln") != std::string::npos || name.starts_with("decoder.ln");
        t.data.resize(n);
        for (float& v : t.data) {
            state ^= state << 13, state ^= state >> 7, state ^= state << 17;
            float u = float(state >> 40) / float(1 << 24) - 0.5f; // uniform, standard deviation 0.29
            v = norm ? (name.ends_with("weight") ? 1.f : 0.f) : 0.07f * u;
        }
        c.weights[name] = std::move(t);
    }
    return c;
}

Result<Model> Model::create(Checkpoint&& checkpoint)
{
    Model m;
    m.m_dims = PLIM_TRY(dimsOf(checkpoint));
    const Dims& d = m.m_dims;
    Taker t{checkpoint, {}};
    auto conv = [&](const std::string& name, int out, int in) {
        Tensor w = t.take(name + ".weight", {out, in, 3});
        Tensor taps{{out, 3 * in}, std::vector<float>(w.data.size())};
        for (size_t o = 0; o < size_t(out); ++o)
            for (size_t i = 0; i < size_t(in); ++i)
                for (size_t k = 0; k < 3; ++k)
                    taps.data[(o * 3 + k) * size_t(in) + i] = w.data[(o * size_t(in) + i) * 3 + k];
        return Linear{std::move(taps), t.vec(name + ".bias", out)};
    };
    m.m_conv1 = conv("encoder.conv1", d.audioState, d.mels);
    m.m_conv2 = conv("encoder.conv2", d.audioState, d.audioState);
    m.m_audioPositions = checkpoint.weights.contains("encoder.positional_embedding")
        ? t.take("encoder.positional_embedding", {d.audioCtx, d.audioState})
        : sinusoids(d.audioCtx, d.audioState);
    for (int i = 0; i < d.audioLayers; ++i)
        m.m_encoder.push_back(t.block("encoder.blocks." + std::to_string(i), d.audioState, false));
    m.m_encoderLn = t.norm("encoder.ln_post", d.audioState);
    m.m_tokenEmbedding = t.take("decoder.token_embedding.weight", {d.vocab, d.textState});
    m.m_textPositions = t.take("decoder.positional_embedding", {d.textCtx, d.textState});
    for (int i = 0; i < d.textLayers; ++i)
        m.m_decoder.push_back(t.block("decoder.blocks." + std::to_string(i), d.textState, true));
    m.m_decoderLn = t.norm("decoder.ln", d.textState);
    if (!t.missing.empty())
        return fail("its weight " + t.missing);
    if (d.audioState != d.textState)
        return fail("its encoder and decoder widths differ");
    return m;
}

Matrix Model::encode(const Matrix& mel) const
{
    const Dims& d = m_dims;
    const int frames = windowFrames(), state = d.audioState, ctx = d.audioCtx, dh = state / d.audioHeads;
    // The work is split between threads of this function's own, each taking a share of the
    // rows (frames) and running its products single-threaded: per layer they wait for each
    // other once, when every row's keys and values are needed for the attention. OpenBLAS's
    // own threads would meet at every product, dozens of times a layer, and its small
    // per-head products keep them poorly fed.
    OwnThreads blas;
    const int workers = std::min(blas.threads(), ctx / 64);
    auto& [in, h, x, norm, qkv, a, hidden, qkvNext] = m_scratch;
    // The convolutions as products without gathering: frames are rows, with a zero row
    // either end for the padding, so tap k of output t reads row t + k (2t + k for the
    // second, strided one) in place: one product per tap, summed.
    reuse(in, frames + 2, d.mels);
    std::fill_n(in.data.begin(), size_t(in.rows) * size_t(in.cols), 0.f);
    for (int c = 0; c < d.mels; ++c)
        for (int t = 0; t < std::min(frames, mel.cols); ++t)
            in.row(t + 1)[c] = mel.row(c)[t];
    reuse(h, frames + 2, state);
    std::fill_n(h.row(0), state, 0.f);
    std::fill_n(h.row(frames + 1), state, 0.f);
    reuse(x, ctx, state);
    reuse(norm, ctx, state);
    reuse(a, ctx, state);
    reuse(hidden, ctx, 4 * state);
    // Two buffers for the keys and values, layer after layer: a thread may go on to the
    // next layer's while another still reads this one's.
    reuse(qkv, ctx, 3 * state);
    reuse(qkvNext, ctx, 3 * state);
    if (m_attentionScratch.size() < size_t(workers))
        m_attentionScratch.resize(size_t(workers));
    Matrix result = matrix(ctx, state);
    std::barrier meet(workers);

    auto share = [&](int worker) {
        const int c0 = frames * worker / workers, c1 = frames * (worker + 1) / workers;
        for (int k = 0; k < 3; ++k)
            product(c1 - c0, state, d.mels, in.row(c0 + k), d.mels, m_conv1.weight.data.data() + k * d.mels,
                h.row(1 + c0), state, k ? 1.f : 0.f, 3 * d.mels);
        biasGelu(h, 1 + c0, c1 - c0, m_conv1.bias);
        meet.arrive_and_wait(); // the strided convolution reads its neighbours' frames
        const int r0 = ctx * worker / workers, r1 = ctx * (worker + 1) / workers, rows = r1 - r0;
        for (int k = 0; k < 3; ++k)
            product(rows, state, state, h.row(2 * r0 + k), 2 * state, m_conv2.weight.data.data() + k * state,
                x.row(r0), state, k ? 1.f : 0.f, 3 * state);
        biasGelu(x, r0, rows, m_conv2.bias, m_audioPositions.data.data() + size_t(r0) * size_t(state));
        Matrix* keys = &qkv;
        for (const Block& b : m_encoder) {
            Matrix& kv = *keys;
            layerNorm(x, b.attnLn, norm, r0, r1);
            product(rows, 3 * state, state, norm.row(r0), state, b.attn.qkv.weight.data.data(), kv.row(r0), 3 * state);
            addBias(kv, b.attn.qkv.bias.data(), r0, r1);
            meet.arrive_and_wait();
            const float* at = kv.data.data();
            attend(rows, {kv.row(r0), 3 * state}, {at + state, 3 * state}, {at + 2 * state, 3 * state}, ctx,
                d.audioHeads, dh, a.row(r0), state, m_attentionScratch[size_t(worker)]);
            addLinear(x, a, b.attn.out, r0, r1);
            mlp(x, b, norm, hidden, r0, r1);
            keys = keys == &qkv ? &qkvNext : &qkv;
        }
        layerNorm(x, m_encoderLn, result, r0, r1);
    };
    {
        std::vector<std::jthread> helpers;
        for (int w = 1; w < workers; ++w)
            helpers.emplace_back(share, w);
        share(0);
    }
    return result;
}

void Model::beginSequence(const Matrix& audio)
{
    const int state = m_dims.textState;
    m_selfK.resize(m_decoder.size());
    m_selfV.resize(m_decoder.size());
    m_crossKV.resize(m_decoder.size());
    for (size_t l = 0; l < m_decoder.size(); ++l) {
        reuse(m_selfK[l], m_dims.textCtx, state);
        reuse(m_selfV[l], m_dims.textCtx, state);
        linear(audio, m_decoder[l].cross.qkv, m_crossKV[l], 2 * state, state);
    }
    m_fed = 0;
}

Matrix Model::decode(std::span<const int> tokens, bool allRows, const std::function<void(const Matrix&)>& crossWeights)
{
    const Dims& d = m_dims;
    const int n = int(tokens.size()), state = d.textState, dh = state / d.textHeads;
    auto& [x, norm, qkv, a, q, hidden, scores, unused] = m_scratch;
    reuse(x, n, state);
    for (int i = 0; i < n; ++i)
        for (int c = 0; c < state; ++c)
            x.row(i)[c] = m_tokenEmbedding.data[size_t(tokens[size_t(i)]) * size_t(state) + size_t(c)]
                + m_textPositions.data[size_t(m_fed + i) * size_t(state) + size_t(c)];
    reuse(a, n, state);
    for (size_t l = 0; l < m_decoder.size(); ++l) {
        const Block& b = m_decoder[l];
        layerNorm(x, b.attnLn, norm);
        linear(norm, b.attn.qkv, qkv);
        for (int i = 0; i < n; ++i) {
            std::copy_n(qkv.row(i) + state, state, m_selfK[l].row(m_fed + i));
            std::copy_n(qkv.row(i) + 2 * state, state, m_selfV[l].row(m_fed + i));
        }
        attend(n, {qkv.data.data(), 3 * state}, {m_selfK[l].data.data(), state}, {m_selfV[l].data.data(), state},
            m_fed + n, d.textHeads, dh, a.data.data(), state, scores, m_fed);
        addLinear(x, a, b.attn.out);
        layerNorm(x, b.crossLn, norm);
        linear(norm, b.cross.qkv, q, state);
        const float* kv = m_crossKV[l].data.data();
        bool upper = 2 * l >= m_decoder.size();
        attend(n, {q.data.data(), state}, {kv, 2 * state}, {kv + state, 2 * state}, m_crossKV[l].rows, d.textHeads, dh,
            a.data.data(), state, scores, -1, upper ? &crossWeights : nullptr);
        addLinear(x, a, b.cross.out);
        mlp(x, b, norm, hidden);
    }
    m_fed += n;
    Matrix last = layerNorm(x, m_decoderLn);
    if (!allRows) {
        last.data.erase(last.data.begin(), last.data.end() - state);
        last.rows = 1;
    }
    Matrix logits = matrix(last.rows, d.vocab);
    product(last.rows, d.vocab, state, last.data.data(), state, m_tokenEmbedding.data.data(), logits.data.data(), d.vocab);
    return logits;
}

} // namespace plim::whisper
