#include "captions/whisper/model.h"

#include "captions/whisper/vector_math.h"

#include <algorithm>
#include <cblas.h>
#include <cmath>
#include <limits>

namespace plim::whisper {

namespace {

Matrix matrix(int rows, int cols)
{
    return Matrix{rows, cols, std::vector<float>(size_t(rows) * size_t(cols), 0.f)};
}

// x times the transpose of `weight` (out x in), plus `bias` when there is one.
Matrix product(const Matrix& x, const Tensor& weight, const std::vector<float>& bias)
{
    int out = int(weight.dim(0)), in = int(weight.dim(1));
    Matrix y = matrix(x.rows, out);
    if (x.rows == 1)
        cblas_sgemv(CblasRowMajor, CblasNoTrans, out, in, 1.f, weight.data.data(), in, x.data.data(), 1, 0.f,
            y.data.data(), 1);
    else
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, x.rows, out, in, 1.f, x.data.data(), in,
            weight.data.data(), in, 0.f, y.data.data(), out);
    if (!bias.empty())
        for (int r = 0; r < y.rows; ++r) {
            float* row = y.row(r);
            for (int c = 0; c < out; ++c)
                row[c] += bias[size_t(c)];
        }
    return y;
}

Matrix linear(const Matrix& x, const Model::Linear& l)
{
    return product(x, l.weight, l.bias);
}

Matrix layerNorm(const Matrix& x, const Model::Norm& n)
{
    Matrix y = matrix(x.rows, x.cols);
    for (int r = 0; r < x.rows; ++r) {
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
    return y;
}

void gelu(Matrix& x)
{
    whisper::gelu(x.data.data(), x.data.size());
}

void addInto(Matrix& x, const Matrix& y)
{
    for (size_t i = 0; i < x.data.size(); ++i)
        x.data[i] += y.data[i];
}

// Multi-head attention of q's rows over the first `keys` rows of k and v. With `causalBase`
// >= 0, query row i sees keys up to causalBase + i only.
Matrix attend(const Matrix& q, const Matrix& k, const Matrix& v, int keys, int heads, int causalBase = -1)
{
    int d = q.cols, dh = d / heads;
    Matrix out = matrix(q.rows, d);
    std::vector<float> scores(size_t(q.rows) * size_t(keys)), sums(size_t(q.rows));
    float scale = 1.f / std::sqrt(float(dh));
    for (int h = 0; h < heads; ++h) {
        if (q.rows == 1) // one token: products with a vector cost less to start
            cblas_sgemv(CblasRowMajor, CblasNoTrans, keys, dh, scale, k.data.data() + h * dh, d,
                q.data.data() + h * dh, 1, 0.f, scores.data(), 1);
        else
            cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, q.rows, keys, dh, scale, q.data.data() + h * dh, d,
                k.data.data() + h * dh, d, 0.f, scores.data(), keys);
        // Softmax left unnormalised; each output row is divided by its sum after the product.
        for (int r = 0; r < q.rows; ++r) {
            float* s = scores.data() + size_t(r) * size_t(keys);
            int visible = causalBase >= 0 ? std::min(keys, causalBase + r + 1) : keys;
            float top = *std::max_element(s, s + visible);
            sums[size_t(r)] = expShifted(s, size_t(visible), top);
            std::fill(s + visible, s + keys, 0.f);
        }
        if (q.rows == 1)
            cblas_sgemv(CblasRowMajor, CblasTrans, keys, dh, 1.f, v.data.data() + h * dh, d, scores.data(), 1, 0.f,
                out.data.data() + h * dh, 1);
        else
            cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, q.rows, dh, keys, 1.f, scores.data(), keys,
                v.data.data() + h * dh, d, 0.f, out.data.data() + h * dh, d);
        for (int r = 0; r < q.rows; ++r) {
            float* o = out.row(r) + h * dh;
            float inv = 1.f / sums[size_t(r)];
            for (int c = 0; c < dh; ++c)
                o[c] *= inv;
        }
    }
    return out;
}

void mlp(Matrix& x, const Model::Block& b)
{
    Matrix h = linear(layerNorm(x, b.mlpLn), b.fc1);
    gelu(h);
    addInto(x, linear(h, b.fc2));
}

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
        return {lin(name + ".query", n, n), lin(name + ".key", n, n, false), lin(name + ".value", n, n),
            lin(name + ".out", n, n)};
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
        w.shape = {out, in * 3};
        return Linear{std::move(w), t.vec(name + ".bias", out)};
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
    int frames = windowFrames();
    // Convolutions as products: each output row gathers its 3-frame neighbourhood.
    Matrix cols = matrix(frames, d.mels * 3);
    for (int t = 0; t < frames; ++t)
        for (int c = 0; c < d.mels; ++c)
            for (int k = 0; k < 3; ++k) {
                int at = t + k - 1;
                if (at >= 0 && at < mel.cols)
                    cols.row(t)[c * 3 + k] = mel.row(c)[at];
            }
    Matrix h = linear(cols, m_conv1);
    gelu(h);
    cols = matrix(d.audioCtx, d.audioState * 3);
    for (int t = 0; t < d.audioCtx; ++t)
        for (int k = 0; k < 3; ++k) {
            int at = 2 * t + k - 1;
            if (at < 0 || at >= frames)
                continue;
            const float* from = h.row(at);
            float* to = cols.row(t);
            for (int c = 0; c < d.audioState; ++c)
                to[c * 3 + k] = from[c];
        }
    Matrix x = linear(cols, m_conv2);
    gelu(x);
    for (size_t i = 0; i < x.data.size(); ++i)
        x.data[i] += m_audioPositions.data[i];
    for (const Block& b : m_encoder) {
        Matrix n = layerNorm(x, b.attnLn);
        Matrix a = attend(linear(n, b.attn.query), linear(n, b.attn.key), linear(n, b.attn.value), x.rows, d.audioHeads);
        addInto(x, linear(a, b.attn.out));
        mlp(x, b);
    }
    return layerNorm(x, m_encoderLn);
}

void Model::beginSequence(const Matrix& audio)
{
    m_selfK.assign(m_decoder.size(), matrix(m_dims.textCtx, m_dims.textState));
    m_selfV = m_selfK;
    m_crossK.clear();
    m_crossV.clear();
    for (const Block& b : m_decoder) {
        m_crossK.push_back(linear(audio, b.cross.key));
        m_crossV.push_back(linear(audio, b.cross.value));
    }
    m_fed = 0;
}

Matrix Model::decode(std::span<const int> tokens, bool allRows)
{
    const Dims& d = m_dims;
    int n = int(tokens.size());
    Matrix x = matrix(n, d.textState);
    for (int i = 0; i < n; ++i)
        for (int c = 0; c < d.textState; ++c)
            x.row(i)[c] = m_tokenEmbedding.data[size_t(tokens[size_t(i)]) * size_t(d.textState) + size_t(c)]
                + m_textPositions.data[size_t(m_fed + i) * size_t(d.textState) + size_t(c)];
    for (size_t l = 0; l < m_decoder.size(); ++l) {
        const Block& b = m_decoder[l];
        Matrix h = layerNorm(x, b.attnLn);
        Matrix q = linear(h, b.attn.query), k = linear(h, b.attn.key), v = linear(h, b.attn.value);
        std::copy(k.data.begin(), k.data.end(), m_selfK[l].row(m_fed));
        std::copy(v.data.begin(), v.data.end(), m_selfV[l].row(m_fed));
        addInto(x, linear(attend(q, m_selfK[l], m_selfV[l], m_fed + n, d.textHeads, m_fed), b.attn.out));
        h = layerNorm(x, b.crossLn);
        q = linear(h, b.cross.query);
        addInto(x, linear(attend(q, m_crossK[l], m_crossV[l], m_crossK[l].rows, d.textHeads), b.cross.out));
        mlp(x, b);
    }
    m_fed += n;
    Matrix last = layerNorm(x, m_decoderLn);
    if (!allRows) {
        last.data.erase(last.data.begin(), last.data.end() - d.textState);
        last.rows = 1;
    }
    return product(last, m_tokenEmbedding, {});
}

} // namespace plim::whisper
